#!/usr/bin/env bash
# Runs one Windows program under Wine for CTest (CMAKE_CROSSCOMPILING_EMULATOR).
# The Windows C runtime writes "\r\n"; the carriage returns are dropped so that CTest
# reads GoogleTest's listing the same way as on Linux.
set -o pipefail
export WINEDEBUG="${WINEDEBUG:--all}"
# No Mono or Gecko installers: the tests are console programs.
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
wine="$(command -v wine64 || command -v wine || echo /usr/lib/wine/wine64)"
"$wine" "$@" | tr -d '\r'
