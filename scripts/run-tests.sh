#!/usr/bin/env bash
# Installs the build's Debian packages when some are missing, then configures the `default`
# preset with warnings as errors, builds it and runs the whole test suite.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

source scripts/lib/packages.sh
packages=("${tandra_build_packages[@]}")
tandra_install_packages

cmake --preset default -DTANDRA_WERROR=ON
cmake --build --preset default
ctest --preset default
