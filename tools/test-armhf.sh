#!/usr/bin/env bash
# Cross-builds the daemon and the tests for the ARMv7 board (armhf) and runs the tests under
# qemu-arm. Installs what it needs: the cross compiler and qemu on the host, and Debian's armhf
# libraries unpacked into a root directory beside the build (see cmake/toolchain-armhf.cmake).
#
#   tools/test-armhf.sh          the CI subset (listed below)
#   tools/test-armhf.sh --all    every test; those that start other programs of the build fail
#                                unless the host runs ARM binaries itself (binfmt_misc)
#
# ARMHF_BUILD_DIR chooses the build directory (default build/armhf).
set -euo pipefail
cd "$(dirname "$0")/.."

all=0
if [ "${1:-}" = "--all" ]; then
    all=1
fi
build=${ARMHF_BUILD_DIR:-build/armhf}
if [[ $build != /* ]]; then
    build=$PWD/$build
fi
root=$build-root
jobs=$(nproc)

./tools/install-deps.sh

if [ "$(id -u)" -eq 0 ]; then
    sudo=()
else
    sudo=(sudo)
fi

host_packages=(g++-arm-linux-gnueabihf qemu-user)
missing=()
for p in "${host_packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    "${sudo[@]}" dpkg --add-architecture armhf
    need_update=1
fi
if [ "${#missing[@]}" -gt 0 ] || [ -n "${need_update:-}" ] || [ ! -e "$root/.unpacked" ]; then
    # A mirror caught mid-sync can fail one index (security's, often); the main archive's
    # armhf packages are enough for the root, so go on and let the download say what's missing.
    "${sudo[@]}" apt-get update -qq || echo "apt-get update reported errors; going on" >&2
fi
if [ "${#missing[@]}" -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
        --no-install-recommends "${missing[@]}"
fi

# The target's libraries and everything they depend on, resolved as if on an empty armhf
# system, so the host's own package set plays no part.
target_packages=(
    libboost-dev libboost-program-options-dev libboost-filesystem-dev
    liblog4cplus-dev libthrift-dev libzmq3-dev cppzmq-dev libprotobuf-dev
    libgtest-dev libgmock-dev
)
# Headers and startup files of these come from the cross toolchain.
toolchain_packages='^(libc6-dev|libc-dev-bin|linux-libc-dev|libstdc\+\+-12-dev|libgcc-12-dev|libcrypt-dev|rpcsvc-proto)$'

# Unpacked again whenever the lists above change.
stamp="${target_packages[*]} / $toolchain_packages"
if [ ! -e "$root/.unpacked" ] || [ "$(cat "$root/.unpacked")" != "$stamp" ]; then
    echo "== Unpacking armhf libraries into $root"
    debs=$build-debs
    mkdir -p "$debs/partial"
    : >"$debs/status"
    apt-get -q -y --download-only --no-install-recommends \
        -o Debug::NoLocking=1 \
        -o Dir::State::status="$debs/status" \
        -o Dir::Cache::archives="$debs" \
        -o APT::Architecture=armhf -o APT::Architectures=armhf \
        install "${target_packages[@]}" >"$debs/download.log"
    rm -rf "$root"
    mkdir -p "$root"
    for deb in "$debs"/*.deb; do
        name=$(dpkg-deb -f "$deb" Package)
        if [[ ! $name =~ $toolchain_packages ]]; then
            dpkg-deb -x "$deb" "$root"
        fi
    done
    # Absolute links (libfoo.so -> /lib/...) would point into the host.
    find "$root" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
        ln -sfn "$root$(readlink "$link")" "$link"
    done
    # Exported CMake targets name some libraries by absolute path (log4cplus: librt.a,
    # libnsl.so): point them into the root, or to the cross toolchain's C library.
    grep -rlo '/usr/lib/arm-linux-gnueabihf/lib[^;" ]*' "$root/usr/lib/arm-linux-gnueabihf/cmake" |
        while IFS= read -r file; do
            for lib in $(grep -o '/usr/lib/arm-linux-gnueabihf/lib[^;" ]*' "$file" | sort -u); do
                if [ -e "$root$lib" ]; then
                    target=$root$lib
                else
                    target=/usr/arm-linux-gnueabihf/lib/$(basename "$lib")
                fi
                sed -i "s#\([\";]\)$lib\([\";]\)#\1$target\2#g" "$file"
            done
        done
    echo "$stamp" >"$root/.unpacked"
fi

# Tests that start other programs of this build (the daemon, scripts, preloaded libraries)
# need the host to run ARM binaries by itself, which user-mode qemu does not give: the CI subset
# leaves them out. It keeps the stack, the CAN service, the telemetry library, the properties,
# publishing with its Ice faults, and the 32-bit time tests.
subset="test_32bit_time"
subset+=";canstack_messages_test;canstack_controlfunction_test;canstack_addressclaim_test"
subset+=";canstack_networkmanagement_test;canstack_pgn_request_test"
subset+=";canstack_transport_protocol_test;canstack_pool_statistics_test;canstack_allocation_test"
subset+=";caninterface_tests;can_service_tests"
subset+=";telemalog_test;properties_tests;property_threads_tests"
subset+=";test_telematics_messages;test_telematics_publishing;test_ice_sink;test_ice_faults"
if [ "$all" -eq 1 ]; then
    subset=""
fi

echo "== armhf cross-build"
# Optimised as the board's build is, at -O2 and without debug information: quicker to compile.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-armhf.cmake" \
    -DTILTHWATCH_ARMHF_ROOT="$root" -DTILTHWATCH_BENCH=OFF \
    -DTILTHWATCH_TEST_ONLY="$subset" >/dev/null
if [ "$all" -eq 1 ]; then
    cmake --build "$build" -j"$jobs"
else
    # The daemon and the subset's tests; no tools.
    cmake --build "$build" -j"$jobs" --target tilthwatch ${subset//;/ }
fi

echo "== armhf tests under qemu-arm"
# The package test runs the host's dpkg-shlibdeps, which cannot see the root's libraries.
(cd "$build" && ctest --output-on-failure -j"$jobs" -LE packaging)
