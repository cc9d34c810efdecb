#!/usr/bin/env bash
# Builds tilthwatch in release mode and starts it in the foreground.
set -euo pipefail
cd "$(dirname "$0")/.."

./tools/install-deps.sh

cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DTILTHWATCH_TESTS=OFF -DTILTHWATCH_BENCH=OFF >/dev/null
cmake --build build/release -j"$(nproc)" --target tilthwatch
exec ./build/release/tilthwatch "$@"
