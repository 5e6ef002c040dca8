#!/usr/bin/env bash
# Installs into a fresh prefix and builds and runs the embedding example against it with find_package.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")/.." && pwd)
prefix=$here/$build/install-check/prefix
rm -rf "$prefix"
cmake --install "$here/$build" --prefix "$prefix" >/dev/null
cmake -S "$here/examples/embed" -B "$here/$build/install-check/embed" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_PREFIX_PATH="$prefix" ${CXX:+-DCMAKE_CXX_COMPILER="$CXX"} >/dev/null
cmake --build "$here/$build/install-check/embed" -- --quiet
"$here/$build/install-check/embed/embed" --self-test
echo "install: the example built against $prefix ran"
