#!/usr/bin/env bash
# Installs the Linux and Windows builds into prefixes and builds tests/consumer, a host
# program outside the tree, against each with find_package(pendrel); then runs both.
# The cross build names the package folder directly: the toolchain file confines package
# searches to the MinGW root.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"

cmake --install build/linux --prefix build/install/linux >/dev/null
cmake -S tests/consumer -B build/consumer/linux -G Ninja \
  -DCMAKE_PREFIX_PATH="$root/build/install/linux" >/dev/null
cmake --build build/consumer/linux
build/consumer/linux/pendrel_consumer

cmake --install build/windows --prefix build/install/windows >/dev/null
cmake -S tests/consumer -B build/consumer/windows -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -Dpendrel_DIR="$root/build/install/windows/lib/cmake/pendrel" >/dev/null
cmake --build build/consumer/windows
cmake/wine-run.sh build/consumer/windows/pendrel_consumer.exe
