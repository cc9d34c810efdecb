#!/usr/bin/env bash
# Instructions per call of one function, counted by valgrind's callgrind: the inclusive cost of
# every call to FUNCTION over the number of calls. Counts hold across noisy machines, unlike
# wall time. Kernel work (system calls) is not counted.
#
#   bench/instructions.sh FUNCTION[/PER] COMMAND [ARGS...]
#
# FUNCTION is matched as a prefix of callgrind's demangled name, e.g.
# "NetworkManagementClass::receiveMessage(". With /PER the cost of FUNCTION is divided by the
# calls of PER instead: "CanInterfaceImplementation::runMainLoop(/Property<double>::set(" is
# the CAN main thread's cost per engine speed sample.
set -euo pipefail
if [ $# -lt 2 ]; then
    echo "usage: $0 FUNCTION COMMAND [ARGS...]" >&2
    exit 2
fi
function=${1%%/*}
per=${1#*/}
if [ "$per" = "$1" ]; then
    per=$function
fi
shift
if ! command -v valgrind >/dev/null; then
    apt-get install -y -qq --no-install-recommends valgrind >/dev/null
fi
out=$(mktemp)
trap 'rm -f "$out"' EXIT
valgrind --tool=callgrind --callgrind-out-file="$out" "$@" >/dev/null 2>&1

# A call line ("calls=N ...") is followed by its inclusive cost ("POSITION Ir").
awk -v want="$function" -v per="$per" '
    function name(spec,   id, rest) {
        id = spec; sub(/\).*/, ")", id); rest = spec; sub(/^\([0-9]+\) ?/, "", rest)
        if (rest != "") names[id] = rest
        return names[id]
    }
    /^c?fn=\(/ { n = name(substr($0, index($0, "=") + 1)); if ($0 ~ /^cfn=/) callee = n; next }
    /^calls=/ {
        split($0, f, /[= ]/); count = f[2]
        if (getline > 0) {
            if (index(callee, want) == 1) cost += $2
            if (index(callee, per) == 1) calls += count
        }
        next
    }
    END {
        if (calls == 0) { print "no calls to " per > "/dev/stderr"; exit 1 }
        printf "%s: %.0f instructions, %d calls of %s, %.1f per call\n", want, cost, calls, per,
               cost / calls
    }' "$out"
