#!/usr/bin/env bash
# Runs systemd-analyze verify on the service unit, with ExecStart pointed at the built binary,
# since the unit names the installed one. Exits 77 (skipped) where systemd-analyze is missing
# or cannot verify even a trivial unit here; any complaint about the unit itself fails.
#   verify_unit.sh <unit file> <built binary>
set -euo pipefail
unit=$1 binary=$2

if ! command -v systemd-analyze >/dev/null 2>&1; then
    echo "systemd-analyze is not available"
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

printf '[Unit]\nDescription=control\n[Service]\nExecStart=/bin/true\n' >"$work/control.service"
if ! control=$(systemd-analyze verify "$work/control.service" 2>&1); then
    echo "systemd-analyze cannot verify a trivial unit here: $control"
    exit 77
fi

sed "s|^ExecStart=/usr/bin/tilthwatch\$|ExecStart=$binary|" "$unit" >"$work/tilthwatch.service"
grep -qx "ExecStart=$binary" "$work/tilthwatch.service" || { echo "no ExecStart=/usr/bin/tilthwatch"; exit 1; }
# Warnings such as an unknown setting are printed, yet leave the status at 0.
status=0
output=$(systemd-analyze verify "$work/tilthwatch.service" 2>&1) || status=$?
echo "$output"
if [ "$status" -ne 0 ] || grep -q "tilthwatch.service" <<<"$output"; then
    echo "FAIL: systemd-analyze verify rejects the unit"
    exit 1
fi
echo "unit ok"
