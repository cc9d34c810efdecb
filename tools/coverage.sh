#!/usr/bin/env bash
# Line and branch coverage of the service's code under the whole test suite, per folder.
#   tools/coverage.sh [build dir]        default: build/coverage
# Prints one row per folder and writes <build dir>/coverage/index.html with every file's lines.
# Branches that only exist for exceptions are left out: each call that may throw adds two, and
# they would drown the branches the code itself takes.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/coverage}
jobs=$(nproc)

./tools/install-deps.sh
if ! command -v gcovr >/dev/null; then
    if [ "$(id -u)" -eq 0 ]; then sudo=(); else sudo=(sudo); fi
    "${sudo[@]}" apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends gcovr
fi

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DTILTHWATCH_BENCH=OFF \
    -DCMAKE_CXX_FLAGS="--coverage -O0" >/dev/null
cmake --build "$build" -j"$jobs"
find "$build" -name '*.gcda' -delete
(cd "$build" && ctest -j"$jobs" --output-on-failure) || echo "== some tests failed: coverage of the run as it went"

mkdir -p "$build/coverage"
gcovr --root . --object-directory "$build" \
    --exclude 'tests/' --exclude 'bench/' --exclude 'tools/' --exclude "$build/" \
    --exclude-throw-branches --exclude-unreachable-branches \
    --json-summary "$build/coverage/summary.json" \
    --html-details "$build/coverage/index.html" >/dev/null

python3 - "$build/coverage/summary.json" <<'EOF'
import json, sys
folders = {}
for f in json.load(open(sys.argv[1]))["files"]:
    parts = f["filename"].split("/")
    folder = "/".join(parts[:-1]) or "(top)"
    if folder.startswith("TelematicsCollector/telemaloglib"):
        folder = "TelematicsCollector/telemaloglib"
    t = folders.setdefault(folder, [0, 0, 0, 0])
    t[0] += f["line_covered"]; t[1] += f["line_total"]
    t[2] += f["branch_covered"]; t[3] += f["branch_total"]
pct = lambda a, b: f"{100.0 * a / b:5.1f}%" if b else "    -"
print(f"{'folder':36} {'lines':>16} {'branches':>16}")
total = [0, 0, 0, 0]
for folder in sorted(folders):
    t = folders[folder]
    total = [x + y for x, y in zip(total, t)]
    print(f"{folder:36} {pct(t[0], t[1])} {t[0]:4}/{t[1]:<5} {pct(t[2], t[3])} {t[2]:4}/{t[3]:<5}")
print(f"{'all':36} {pct(total[0], total[1])} {total[0]:4}/{total[1]:<5} {pct(total[2], total[3])} {total[2]:4}/{total[3]:<5}")
EOF
