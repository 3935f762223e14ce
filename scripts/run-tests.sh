#!/usr/bin/env bash
# Installs the build's Debian packages when some are missing, then configures the `default`
# preset with warnings as errors, builds it and runs the whole test suite.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

packages=(cmake ninja-build g++ pkg-config libjsoncpp-dev libgtest-dev libgmock-dev libasio-dev libssl-dev libavahi-client-dev iproute2)
missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
if ((${#missing[@]} > 0)); then
    echo "Installing missing packages: ${missing[*]}"
    sudo=()
    if [[ "$(id -u)" -ne 0 ]]; then
        sudo=(sudo)
    fi
    "${sudo[@]}" apt-get update
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
fi

cmake --preset default -DTANDRA_WERROR=ON
cmake --build --preset default
ctest --preset default
