#!/usr/bin/env bash
# The full soak: handlers × threads per handler × requests per thread, each request a file of
# 0 B to max-bytes (spread over the orders of magnitude) echoed by its handler and checked
# byte for byte; the run must keep to its time limit and leave the host's memory as it found
# it (tests/reliability/soak_test.cpp). CI runs the same test at a small size.
#
#   scripts/soak.sh [--windows] [handlers threads requests max-bytes time-limit-s]
#
# Defaults: 8 4 2000 4194304 3600. --windows runs the Windows build under Wine instead of
# the Linux one (expect it to take several times longer). PENDREL_BUILD_ROOT moves the build
# folders (default: build/ in the project).
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
builds="${PENDREL_BUILD_ROOT:-$root/build}"

preset=linux
if [[ "${1:-}" == "--windows" ]]; then
  preset=windows
  shift
fi
export PENDREL_SOAK_HANDLERS="${1:-8}"
export PENDREL_SOAK_THREADS="${2:-4}"
export PENDREL_SOAK_REQUESTS="${3:-2000}"
export PENDREL_SOAK_MAX_BYTES="${4:-4194304}"
export PENDREL_SOAK_TIME_LIMIT_S="${5:-3600}"
build="$builds/$preset"

scripts/install-deps.sh
echo "=== Soak ($preset): build ($build)"
cmake --preset "$preset" -B "$build" >/dev/null
cmake --build "$build" --target pendrel_reliability_test

program=("$build/bin/pendrel_reliability_test")
if [[ "$preset" == windows ]]; then
  export WINEPREFIX="${WINEPREFIX:-$builds/wine}" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
  wine="$(command -v wine64 || echo /usr/lib/wine/wine64)"
  mkdir -p "$WINEPREFIX"
  "$wine" wineboot -i >/dev/null 2>&1 || true
  program=("$root/cmake/wine-run.sh" "$build/bin/pendrel_reliability_test.exe")
fi

echo "=== Soak: $PENDREL_SOAK_HANDLERS handlers x $PENDREL_SOAK_THREADS threads x" \
  "$PENDREL_SOAK_REQUESTS requests of up to $PENDREL_SOAK_MAX_BYTES bytes," \
  "at most $PENDREL_SOAK_TIME_LIMIT_S s"
status=0
(cd "$build" && "${program[@]}" --gtest_filter='Soak.*') || status=$?
if ((status == 0)); then
  echo "Soak: 1 passed, 0 failed"
else
  echo "Soak: 0 passed, 1 failed"
fi
exit "$status"
