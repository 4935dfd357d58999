#!/usr/bin/env bash
# Runs the native tests under the sanitizers and fails on any report:
#   asan  every test (the "asan" preset: AddressSanitizer with LeakSanitizer, and
#         UndefinedBehaviorSanitizer), through CTest;
#   tsan  the channel, handler, handler kit and reliability tests (the "tsan" preset, Clang's
#         ThreadSanitizer), each test program run whole.
# The handler programs the tests start are built the same way, so a report in a child
# process counts too: every process writes its reports to <build>/sanitizer-reports/, and any
# file there fails the run.
#
#   scripts/sanitize.sh [asan] [tsan]     (both when none is named)
#
# PENDREL_BUILD_ROOT moves the build folders (default: build/ in the project).
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
builds="${PENDREL_BUILD_ROOT:-$root/build}"

kinds=("$@")
((${#kinds[@]})) || kinds=(asan tsan)

scripts/install-deps.sh

passed=0
failed=0
problems=()

# Adds the counts of one test run (CTest's or GoogleTest's summary in `log`).
count_ctest() {
  local log="$1" line total bad
  line="$(sed -nE '/[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+/p' "$log" | tail -n 1)"
  if [[ -z "$line" ]]; then
    failed=$((failed + 1))
    return
  fi
  bad="$(sed -E 's/.* ([0-9]+) tests? failed out of.*/\1/' <<<"$line")"
  total="$(sed -E 's/.*out of ([0-9]+).*/\1/' <<<"$line")"
  passed=$((passed + total - bad))
  failed=$((failed + bad))
}

count_gtest() {
  local log="$1" ok bad
  # The last number in the summary line "[  PASSED  ] N tests." (or FAILED); none: 0.
  ok="$(sed -nE 's/^\[  PASSED  \] ([0-9]+) tests?.*/\1/p' "$log" | tail -n 1)"
  bad="$(sed -nE 's/^\[  FAILED  \] ([0-9]+) tests?.*/\1/p' "$log" | tail -n 1)"
  ok="${ok:-0}"
  bad="${bad:-0}"
  # A program that died before its summary counts as one failure.
  if ! grep -qE '^\[==========\] [0-9]+ tests? from .* ran\.' "$log"; then bad=$((bad + 1)); fi
  passed=$((passed + ok))
  failed=$((failed + bad))
}

# Fails the run for every sanitizer report a process left in `dir`.
check_reports() {
  local kind="$1" dir="$2" report
  for report in "$dir"/*; do
    [[ -e "$report" ]] || continue
    # LeakSanitizer writes a warning, and no finding, when a thread of a process that is
    # ending cannot be stopped for its check ("Unable to get registers from thread"); the
    # check still runs, and a leak it finds is reported with ERROR as always.
    if ! grep -q -E 'ERROR:|SUMMARY:' "$report"; then
      echo "--- $kind note $(basename "$report") (no finding): $(head -n 1 "$report")"
      continue
    fi
    failed=$((failed + 1))
    problems+=("$kind: $(basename "$report")")
    echo "--- $kind report $(basename "$report"):"
    head -n 60 "$report" | sed 's/^/    /'
  done
}

run_asan() {
  local build="$builds/asan" reports log
  reports="$build/sanitizer-reports"
  log="$build/sanitize-ctest.log"
  echo "=== ASan + UBSan: build ($build)"
  cmake --preset asan -B "$build" >/dev/null
  cmake --build "$build"
  rm -rf "$reports"
  mkdir -p "$reports"
  echo "=== ASan + UBSan: every test"
  local status=0
  ASAN_OPTIONS="detect_leaks=1:halt_on_error=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1:log_path=$reports/asan" \
    UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:log_path=$reports/ubsan" \
    LSAN_OPTIONS="log_path=$reports/lsan" \
    ctest --test-dir "$build" -j2 --output-on-failure --timeout 600 >"$log" 2>&1 || status=$?
  grep -E '(Failed|Timeout|Exception|Not Run)\b' "$log" | sed 's/^/    /' || true
  tail -n 3 "$log" | sed 's/^/    /'
  count_ctest "$log"
  ((status == 0)) || problems+=("asan: ctest exited with $status")
  check_reports asan "$reports"
}

# The test programs that run threads against the pipe, and what each leaves out: the
# quarter-gibibyte transfer is a test of size, not of threads, and takes minutes here.
tsan_programs=(
  "pendrel_pipe_test"
  "pendrel_handler_test"
  "pendrel_handler_process_test"
  "pendrel_handler_pool_test"
  "pendrel_handler_kit_test"
  "pendrel_reliability_test --gtest_filter=-HugeMessage.QuarterGibibyteGoesEachWayIntact"
)

run_tsan() {
  local build="$builds/tsan" reports entry program
  reports="$build/sanitizer-reports"
  echo "=== TSan: build ($build)"
  cmake --preset tsan -B "$build" >/dev/null
  local targets=()
  for entry in "${tsan_programs[@]}"; do targets+=("${entry%% *}"); done
  cmake --build "$build" --target "${targets[@]}"
  rm -rf "$reports"
  mkdir -p "$reports"
  for entry in "${tsan_programs[@]}"; do
    read -r -a program <<<"$entry"
    local log="$build/sanitize-${program[0]}.log" status=0
    echo "=== TSan: ${program[*]}"
    # Each program runs whole, its tests one after the other.
    (cd "$build" && TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:log_path=$reports/tsan" \
      timeout 1800 "bin/${program[0]}" "${program[@]:1}" >"$log" 2>&1) || status=$?
    grep -E '^\[  (PASSED|FAILED) ' "$log" | sed 's/^/    /' || true
    count_gtest "$log"
    ((status == 0)) || problems+=("tsan: ${program[0]} exited with $status")
  done
  check_reports tsan "$reports"
}

for kind in "${kinds[@]}"; do
  case "$kind" in
    asan) run_asan ;;
    tsan) run_tsan ;;
    *)
      echo "unknown sanitizer run: $kind (asan, tsan)" >&2
      exit 2
      ;;
  esac
done

((${#problems[@]} == 0)) || printf 'Problem: %s\n' "${problems[@]}"
echo "Sanitizers (${kinds[*]}): $passed passed, $failed failed"
((failed == 0 && ${#problems[@]} == 0))
