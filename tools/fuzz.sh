#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer, then runs each for SECONDS (default 30) from its seed corpus in
# fuzz/corpus/<target>. Exits non-zero on any finding; the input that found it is left in
# <build>/artifacts. New inputs go to <build>/corpus, never into the tree.
#
#   tools/fuzz.sh [SECONDS] [TARGET...]     FUZZ_BUILD_DIR=build/fuzz by default
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-30}
shift || true
build=${FUZZ_BUILD_DIR:-build/fuzz}

./tools/install-deps.sh
# clang with its libFuzzer and sanitizer runtimes.
missing=()
for p in clang libclang-rt-dev; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
if [ "${#missing[@]}" -gt 0 ]; then
    sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    echo "Installing: ${missing[*]}"
    "${sudo[@]}" apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
        --no-install-recommends "${missing[@]}"
fi

echo "== Fuzz build (clang, ASan + UBSan, libFuzzer)"
start=$(date +%s)
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g" -DTILTHWATCH_FUZZ=ON -DTILTHWATCH_TESTS=OFF \
    -DTILTHWATCH_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target fuzzers
echo "fuzz build took $(($(date +%s) - start)) s"

if [ "$#" -gt 0 ]; then
    targets=("$@")
else
    targets=()
    for binary in "$build"/fuzz/*_fuzzer; do
        [ -x "$binary" ] && targets+=("$(basename "$binary")")
    done
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
mkdir -p "$build/artifacts" "$build/logs"
passed=0
failed=0
for target in "${targets[@]}"; do
    corpus="$build/corpus/$target"
    seeds="fuzz/corpus/$target"
    log="$build/logs/$target.log"
    mkdir -p "$corpus" "$seeds"
    echo "== $target for $seconds s"
    # A single input running over 10 s is a finding as well.
    if "$build/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$build/artifacts/$target-" \
        "$corpus" "$seeds" >"$log" 2>&1; then
        runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
        coverage=$(grep -Eo 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -n 1)
        echo "$target: ${runs:-?} runs, ${coverage:-no coverage line}"
        passed=$((passed + 1))
    else
        echo "$target: FINDING, the last lines of $log:"
        tail -n 40 "$log"
        failed=$((failed + 1))
    fi
done
echo "fuzz targets: $passed clean, $failed with findings"
[ "$failed" -eq 0 ]
