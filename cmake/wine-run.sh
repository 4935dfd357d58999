#!/usr/bin/env bash
# Runs one Windows program under Wine for CTest (CMAKE_CROSSCOMPILING_EMULATOR).
# The Windows C runtime writes "\r\n"; the carriage returns are dropped so that CTest
# reads GoogleTest's listing the same way as on Linux.
#
# Wine's client now and then loses its connection to the wineserver while a new process is
# being set up ("wine client error:…: recvmsg: Connection reset by peer"), or ends such a
# start without a word at all; the program has then not run: it printed nothing (a test
# program's first line, GoogleTest's "Running main()", is missing) and no test of it ran.
# Such a start, and only such a start, is made once more, and the fact is written to
# standard error. A program that ran and failed is never run again.
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
if ((status != 0)) && [[ ! -s "$out" ]] && { [[ ! -s "$err" ]] || grep -q '^wine client error' "$err"; }; then
  echo "wine-run: Wine ended the start of the program with status $status before it ran:" >&2
  cat "$err" >&2
  echo "wine-run: starting the program once more" >&2
  run "$@"
  status=$?
fi
cat "$out"
cat "$err" >&2
exit "$status"
