#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs them all.
set -euo pipefail
cd "$(dirname "$0")/.."

./tools/install-deps.sh

cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DTILTHWATCH_TESTS=OFF >/dev/null
cmake --build build/bench -j"$(nproc)"
for b in build/bench/bench/*; do
    [ -x "$b" ] && [ -f "$b" ] && "$b" "$@"
done
