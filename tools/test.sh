#!/usr/bin/env bash
# Builds and runs every test: all tests under AddressSanitizer and UndefinedBehaviorSanitizer,
# then the threaded tests again under ThreadSanitizer, then each fuzz target for 30 s.
set -euo pipefail
cd "$(dirname "$0")/.."

./tools/install-deps.sh

jobs=$(nproc)
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

echo "== ASan + UBSan build"
cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=Debug -DTILTHWATCH_SANITIZE=ON >/dev/null
cmake --build build/asan -j"$jobs"
(cd build/asan && ctest --output-on-failure -j"$jobs")

echo "== ThreadSanitizer build (threaded tests)"
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=Debug -DTILTHWATCH_TSAN=ON >/dev/null
cmake --build build/tsan -j"$jobs"
(cd build/tsan && ctest --output-on-failure -j"$jobs" -L threaded --no-tests=ignore)

echo "== Fuzzing (each target 30 s)"
./tools/fuzz.sh 30

# ---- The ARMv7 target and the soak. TILTHWATCH_SKIP_ARMHF=1 or TILTHWATCH_SKIP_SOAK=1 leave
# ---- them out of a local run.
if [ -z "${TILTHWATCH_SKIP_ARMHF:-}" ]; then
    echo "== ARMv7 (armhf) cross-build, tests under qemu-arm"
    ./tools/test-armhf.sh
fi
if [ -z "${TILTHWATCH_SKIP_SOAK:-}" ]; then
    echo "== Soak, one minute at full load on three buses"
    ./tools/soak.sh 60
fi
