#!/usr/bin/env bash
# Installs the Debian packages that building and testing pendrel needs, if any is missing:
# the native toolchain, GoogleTest, the MinGW-w64 cross compiler and Wine, Clang's
# sanitizer and libFuzzer runtimes, the libraries of the programs around the library (the
# HTTP server, configuration, strict JSON, MIME) and the clients and peers their tests use.
# Packages named as arguments are installed besides (scripts/bench.sh adds the benchmarks'
# peer libraries that way).
#
# --demo installs only what scripts/demo.sh needs to build the library, the command-line
# host (with its HTTP server) and the example handler natively: a compiler, CMake, Ninja, the
# JSON library of the command line, Boost (Beast, Asio, URL) and toml++ for the server; a few
# hundred MB instead of about 1 GB more with MinGW-w64 and Wine.
#
#   scripts/install-deps.sh [--demo] [package...]
set -euo pipefail

demo_packages=(
  cmake ninja-build g++ pkg-config nlohmann-json3-dev
  libboost1.81-dev libboost-url1.81-dev libtomlplusplus-dev
)

if [[ "${1:-}" == "--demo" ]]; then
  shift
  packages=("${demo_packages[@]}" "$@")
else
  packages=(
    "${demo_packages[@]}" clang
    libclang-rt-14-dev
    libgtest-dev googletest libbenchmark-dev
    g++-mingw-w64-x86-64-posix wine64
    python3
    libgmime-3.0-dev curl nginx-light
    "$@"
  )
fi

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
    missing+=("$package")
done

if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo=""
  [[ $(id -u) -eq 0 ]] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
fi
