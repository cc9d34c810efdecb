#!/usr/bin/env bash
# Installs the Debian packages tilthwatch needs to build, test and run. Safe to run again.
set -euo pipefail

packages=(
    build-essential cmake pkg-config
    libboost-dev libboost-program-options-dev libboost-filesystem-dev
    liblog4cplus-dev
    libthrift-dev thrift-compiler
    libzmq3-dev cppzmq-dev
    libprotobuf-dev protobuf-compiler
    libgtest-dev libgmock-dev googletest libbenchmark-dev
    # Version stamp, the Debian package (dpkg-shlibdeps needs file) and its unit check.
    git dpkg-dev file systemd
)

if [ "$(id -u)" -eq 0 ]; then
    sudo=()
else
    sudo=(sudo)
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done

if [ "${#missing[@]}" -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    "${sudo[@]}" apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
