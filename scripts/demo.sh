#!/usr/bin/env bash
# The main job of pendrel on a fresh Debian machine: installs what is missing, builds the
# linux preset and drives the example handler with the command-line host. It shows what the
# handler says about itself, the response to a request in its JSON form, and responses in
# their HTTP form (one file as the body; several as multipart/mixed), whose files it also
# saves into build/demo.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

echo "=== Build (linux preset): the library, the pendrel command line, the example handler"
cmake --preset linux >/dev/null
cmake --build --preset linux --target pendrel_cli pendrel_text_stats

# The two programs by name, as from an installed copy; a handler named without a folder is
# looked for in PATH.
export PATH="$PWD/build/linux/bin:$PATH"
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
  --output http --save build/demo
