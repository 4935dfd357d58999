#!/usr/bin/env bash
# Builds and tests pendrel on a fresh Debian machine: installs what is missing, then
#  1. builds the Linux library and runs its tests,
#  2. cross-builds the Windows DLL with MinGW-w64 and runs the same tests under Wine,
#  3. installs both and builds a small host against the installed package,
#  4. runs every native test under AddressSanitizer + UndefinedBehaviorSanitizer, and the
#     channel, handler and reliability tests under ThreadSanitizer (scripts/sanitize.sh),
#  5. runs every fuzz target for a fixed time (scripts/fuzz.sh; PENDREL_FUZZ_SECONDS, 30 s
#     per target unless set),
#  6. builds the benchmarks and runs each once at a tiny size (scripts/bench.sh --smoke).
# Fails if any step fails.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"

scripts/install-deps.sh

# A Wine prefix of our own, created once before tests run in parallel.
export WINEPREFIX="${WINEPREFIX:-$root/build/wine}"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
wine="$(command -v wine64 || echo /usr/lib/wine/wine64)"
wineserver="$(command -v wineserver || echo /usr/lib/wine/wineserver)"
mkdir -p "$WINEPREFIX"
trap '"$wineserver" -k >/dev/null 2>&1 || true' EXIT
"$wine" wineboot -i >/dev/null 2>&1 || true
# Keep one wineserver for all test programs instead of one per program.
"$wineserver" -p >/dev/null 2>&1 || true

echo "=== Linux: build and test"
cmake --preset linux >/dev/null
cmake --build --preset linux
ctest --preset linux

echo "=== Windows (MinGW-w64, under Wine): build and test"
cmake --preset windows >/dev/null
cmake --build --preset windows
ctest --preset windows

echo "=== Installed package: a host builds with find_package(pendrel)"
scripts/check-consumer.sh

echo "=== Sanitizers"
scripts/sanitize.sh asan tsan

echo "=== Fuzzing"
scripts/fuzz.sh "${PENDREL_FUZZ_SECONDS:-30}"

echo "=== Benchmarks: build and run once at a tiny size"
scripts/bench.sh --smoke

echo "=== All Linux and Windows tests, sanitizer runs, fuzz targets and benchmarks passed"
