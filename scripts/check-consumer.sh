#!/usr/bin/env bash
# Installs the Linux and Windows builds into prefixes and builds tests/consumer, a host
# program and a handler program outside the tree, against each with find_package(pendrel);
# then runs them. Before that, it checks what each prefix holds: every header under
# include/pendrel/, and no trace of the static library the tests link (pendrel_internal),
# neither an archive nor a name in the exported CMake files. After, it checks that the
# handler program needs no pendrel DLL or shared library (the handler kit carries the
# library) and has the installed command line ask it for its description. The consumer is
# compiled with C++14 as the compiler's default, so it builds only because the package's
# targets ask for C++17.
# The cross build names the package folder directly: the toolchain file confines package
# searches to the MinGW root.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"

# check_prefix PREFIX: fails unless the installed tree has the layout a host relies on.
check_prefix() {
  local prefix="$1" bad
  bad="$(find "$prefix" -iname '*pendrel_internal*' -o -iname '*pendrel_objects*')"
  if [[ -n "$bad" ]]; then
    echo "$prefix: the internal static library is installed:" >&2
    echo "$bad" >&2
    return 1
  fi
  if grep -rlE 'pendrel_internal|pendrel_objects' "$prefix/lib/cmake/pendrel" >&2; then
    echo "$prefix: the exported CMake files above name the internal static library" >&2
    return 1
  fi
  bad="$(find "$prefix/include" -mindepth 1 -maxdepth 1 ! -name pendrel)"
  if [[ -n "$bad" ]]; then
    echo "$prefix: headers outside include/pendrel/:" >&2
    echo "$bad" >&2
    return 1
  fi
  if [[ ! -f "$prefix/include/pendrel/message/CRequest.h" ||
        ! -f "$prefix/include/pendrel/handler_kit/HandlerKit.h" ]]; then
    echo "$prefix: the public headers are missing from include/pendrel/" >&2
    return 1
  fi
  echo "$prefix: $(find "$prefix/include/pendrel" -name '*.h' | wc -l) headers under include/pendrel/, no internal library"
}

# no_pendrel_dependency DUMP PROGRAM: fails if the dynamic section the dump prints names a
# pendrel library.
no_pendrel_dependency() {
  local dump="$1" program="$2"
  if grep -iE '(NEEDED|DLL Name).*pendrel' <<<"$dump" >&2; then
    echo "$program depends on the pendrel library; the handler kit should carry it" >&2
    return 1
  fi
  echo "$program: needs no pendrel library"
}

echo "--- Linux"
rm -rf build/install/linux
cmake --install build/linux --prefix build/install/linux >/dev/null
check_prefix build/install/linux
cmake -S tests/consumer -B build/consumer/linux -G Ninja \
  -DCMAKE_PREFIX_PATH="$root/build/install/linux" -DCMAKE_CXX_FLAGS=-std=c++14 >/dev/null
cmake --build build/consumer/linux
build/consumer/linux/pendrel_consumer
no_pendrel_dependency "$(readelf -d build/consumer/linux/pendrel_consumer_handler)" \
  pendrel_consumer_handler
if [[ -x build/install/linux/bin/pendrel ]]; then
  # The installed command line drives the handler: it serves the protocol on its own.
  build/install/linux/bin/pendrel info "$root/build/consumer/linux/pendrel_consumer_handler" \
    --output common
fi

echo "--- Windows"
rm -rf build/install/windows
cmake --install build/windows --prefix build/install/windows >/dev/null
check_prefix build/install/windows
cmake -S tests/consumer -B build/consumer/windows -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -Dpendrel_DIR="$root/build/install/windows/lib/cmake/pendrel" \
  -DCMAKE_CXX_FLAGS=-std=c++14 >/dev/null
cmake --build build/consumer/windows
cmake/wine-run.sh build/consumer/windows/pendrel_consumer.exe
objdump="$(command -v x86_64-w64-mingw32-objdump || echo objdump)"
no_pendrel_dependency "$("$objdump" -p build/consumer/windows/pendrel_consumer_handler.exe)" \
  pendrel_consumer_handler.exe
if [[ -f build/install/windows/bin/pendrel.exe ]]; then
  # The same under Wine, which sees the Linux root as drive Z:.
  handler="$root/build/consumer/windows/pendrel_consumer_handler.exe"
  cmake/wine-run.sh build/install/windows/bin/pendrel.exe info "Z:${handler//\//\\}" \
    --output common
fi
