#!/usr/bin/env bash
# Soak: tilthwatch-replay, the whole service, at full load on its three buses (about 7,800
# frames a second) with a 1 s period. Samples resident memory and CPU every second and fails
# when memory grows after the warm-up or a record is missing.
#
#   tools/soak.sh [SECONDS]     default 600; CI runs 60
#
# SOAK_BUILD_DIR chooses the release build directory (default build/soak); the samples are
# written to soak.csv there.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-600}
build=${SOAK_BUILD_DIR:-build/soak}

./tools/install-deps.sh

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTILTHWATCH_TESTS=OFF \
    -DTILTHWATCH_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target tilthwatch-replay tilthwatch-soak

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo "== Soak: $seconds s at full load on three buses"
"$build/tools/tilthwatch-soak" --replay "$build/tools/tilthwatch-replay" --seconds "$seconds" \
    --work "$work" --csv "$build/soak.csv"
