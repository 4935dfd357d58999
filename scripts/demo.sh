#!/usr/bin/env bash
# The main job of pendrel on a fresh Debian machine: installs what the demo needs (and only
# that: scripts/install-deps.sh --demo), builds the demo preset (the library, the command-line
# host and the example handler; no tests) and drives the example handler with the
# command-line host. It shows what the handler says about itself, the response to a request
# in its JSON form, and responses in their HTTP form (one file as the body; several as
# multipart/mixed), whose files it also saves into build/demo-output. It ends by saying how to
# put pendrel on PATH.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh --demo

echo "=== Build (demo preset): the library, the pendrel command line, the example handler"
mkdir -p build
log=build/demo-build.log
started=$SECONDS
if ! { cmake --preset demo && cmake --build --preset demo; } >"$log" 2>&1; then
  tail -n 40 "$log"
  echo "The build failed; its whole output is in $log" >&2
  exit 1
fi
echo "Built in $((SECONDS - started)) s (the build's output: $log)"

# The two programs by name, as from an installed copy; a handler named without a folder is
# looked for in PATH.
export PATH="$PWD/build/demo/bin:$PATH"
sample=examples/data/sample.csv

show() {
  printf '\n$ %s\n' "$*"
  "$@"
}

echo
echo "=== The command-line host drives the example handler through the library"
show pendrel info pendrel-text-stats --output common
show pendrel call pendrel-text-stats --command STATS --file "$sample"
show pendrel call pendrel-text-stats --command CSV2JSON --file "$sample" --output http
show pendrel call pendrel-text-stats --command STATS --param report=files --file "$sample" \
  --output http --save build/demo-output

cat <<END

=== pendrel and pendrel-text-stats are in build/demo/bin. To run them by name from anywhere,
install them (with the library) into ~/.local and put ~/.local/bin on PATH:

  cmake --install build/demo --prefix ~/.local
  export PATH="\$HOME/.local/bin:\$PATH"    # add this line to ~/.profile to keep it
END
