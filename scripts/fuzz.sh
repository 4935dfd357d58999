#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/, the "fuzz" preset: Clang, AddressSanitizer,
# UndefinedBehaviorSanitizer) and runs each for a fixed time, starting from its seeds in
# fuzz/corpus/. Fails if any target finds anything: a crash, a sanitizer report, a broken
# property, a time-out or running out of memory.
#
#   scripts/fuzz.sh [seconds-per-target] [target...]
#
# CI runs it with the default budget (30 s per target); run it with a larger budget to fuzz
# longer, e.g. scripts/fuzz.sh 3600 json_parse. The corpus each run grows is kept in the
# build folder (<build>/corpus/<target>) and reused by the next run; what a finding leaves
# (crash-*, timeout-*, oom-*) lands in <build>/findings/<target>/ and is replayed with
#   <build>/bin/fuzz_<target> <file>
# PENDREL_BUILD_ROOT moves the build folders (default: build/ in the project).
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"

budget="${1:-30}"
shift || true
build="${PENDREL_BUILD_ROOT:-$root/build}/fuzz"

scripts/install-deps.sh

echo "=== Fuzz targets: build (${build})"
cmake --preset fuzz -B "$build" >/dev/null
cmake --build "$build" --target pendrel_fuzzers

targets=("$@")
if ((${#targets[@]} == 0)); then
  mapfile -t targets <"$build/fuzz-targets.txt"
fi

passed=0
failed=0
failures=()
for target in "${targets[@]}"; do
  [[ -n "$target" ]] || continue
  program="$build/bin/fuzz_$target"
  if [[ ! -x "$program" ]]; then
    echo "--- $target: no such fuzz target"
    failed=$((failed + 1))
    failures+=("$target")
    continue
  fi
  seeds=("$root/fuzz/corpus/$target")
  # Every JSON-reading target also starts from the JSON parser's seeds.
  case "$target" in
    json_round_trip | request_json | response_json | std_response)
      seeds+=("$root/fuzz/corpus/json_parse") ;;
  esac
  corpus="$build/corpus/$target"
  findings="$build/findings/$target"
  log="$build/logs/$target.log"
  mkdir -p "$corpus" "$findings" "$(dirname "$log")"

  echo "--- $target: ${budget} s"
  # -timeout: one input may take at most 10 s; -rss_limit_mb/-malloc_limit_mb: 2 GiB.
  if "$program" -max_total_time="$budget" -timeout=10 -rss_limit_mb=2048 \
    -malloc_limit_mb=2048 -max_len=65536 -print_final_stats=1 \
    -artifact_prefix="$findings/" "$corpus" "${seeds[@]}" >"$log" 2>&1; then
    passed=$((passed + 1))
    grep -E '^stat::number_of_executed_units' "$log" | sed 's/^/    /' || true
  else
    failed=$((failed + 1))
    failures+=("$target")
    echo "    FAILED; the end of $log:"
    tail -n 40 "$log" | sed 's/^/    /'
    ls "$findings" | sed 's/^/    finding: /'
  fi
done

((failed == 0)) || echo "Failed targets: ${failures[*]}"
echo "Fuzzing: $passed passed, $failed failed"
((failed == 0))
