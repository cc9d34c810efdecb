#!/usr/bin/env bash
# Builds the service in release mode and packs it as a Debian package into build/package/.
set -euo pipefail
cd "$(dirname "$0")/.."

./tools/install-deps.sh

cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DTILTHWATCH_TESTS=OFF -DTILTHWATCH_BENCH=OFF >/dev/null
cmake --build build/release -j"$(nproc)" --target tilthwatch tilthwatch-replay tilthwatch-ice-receiver
(cd build/release && cpack -G DEB -B "$PWD/../package")
ls -1 build/package/*.deb
