#!/usr/bin/env bash
# Runs one Windows program under Wine for CTest (CMAKE_CROSSCOMPILING_EMULATOR).
# The Windows C runtime writes "\r\n"; the carriage returns are dropped so that CTest
# reads GoogleTest's listing the same way as on Linux.
#
# Wine's client now and then loses its connection to the wineserver while a new process is
# being set up ("wine client error:…: recvmsg: Connection reset by peer"); the program has
# then not run at all: it printed nothing and no test of it ran. Such a start, and only
# such a start, is made once more, and the fact is written to standard error. A program
# that ran and failed is never run again.
set -o pipefail
export WINEDEBUG="${WINEDEBUG:--all}"
# No Mono or Gecko installers: the tests are console programs.
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
wine="$(command -v wine64 || command -v wine || echo /usr/lib/wine/wine64)"

out="$(mktemp)"
err="$(mktemp)"
trap 'rm -f "$out" "$err"' EXIT

run() {
  "$wine" "$@" 2>"$err" | tr -d '\r' >"$out"
}

run "$@"
status=$?
if ((status != 0)) && [[ ! -s "$out" ]] && grep -q '^wine client error' "$err"; then
  echo "wine-run: the Wine client lost the wineserver before the program started:" >&2
  cat "$err" >&2
  echo "wine-run: starting the program once more" >&2
  run "$@"
  status=$?
fi
cat "$out"
cat "$err" >&2
exit "$status"
