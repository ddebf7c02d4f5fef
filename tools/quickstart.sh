#!/usr/bin/env bash
# Builds and installs utl into build/quickstart/prefix, then builds the example program against
# that installed package and runs it.
set -euo pipefail
cd "$(dirname "$0")/.."
source tools/common.sh

utl_require_packages cmake ninja-build g++
build=build/quickstart
cmake -S . -B "$build/utl" -G Ninja -DCMAKE_BUILD_TYPE=Release -DUTL_BUILD_TESTS=OFF \
    -DCMAKE_INSTALL_PREFIX="$PWD/$build/prefix"
cmake --build "$build/utl" -j "$(utl_jobs)"
cmake --install "$build/utl"
cmake -S examples -B "$build/examples" -G Ninja -DCMAKE_PREFIX_PATH="$PWD/$build/prefix"
cmake --build "$build/examples"
"$build/examples/utl_tour"
