#!/usr/bin/env bash
# Runs the benchmarks of bench/ and prints one summary table: figure, pendrel, best peer
# (named), ratio, target, met?
#
#   scripts/bench.sh           installs what is missing (the peers with apt-get), builds the
#                              bench preset (Release), runs every benchmark with 5 repetitions
#                              (medians), `pendrel serve` against nginx + php-fpm under wrk
#                              (bench/server), the Windows timing program under Wine (report
#                              only), and prints the table
#   scripts/bench.sh --smoke   builds and runs each benchmark once at a tiny size, to prove
#                              that they build and run; targets are not judged by it
#
# Fails only when something does not build or run; a missed target is reported, not fatal.
# Results land in build/bench/results (JSON per program, the table in summary.txt).
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"

smoke=0
case "${1:-}" in
  --smoke) smoke=1 ;;
  "") ;;
  *) echo "usage: scripts/bench.sh [--smoke]" >&2; exit 64 ;;
esac

# The peers are Debian packages, used by the benchmarks only.
peers=(
  pkg-config rapidjson-dev libboost-json1.81-dev nlohmann-json3-dev libsimdjson-dev
  libssl-dev libzmq3-dev
  php-fpm wrk nginx-light
)
scripts/install-deps.sh "${peers[@]}"

echo "=== Build (bench preset, Release)"
# With the programs: the server figures drive `pendrel serve`.
cmake --preset bench -DPENDREL_BUILD_TOOLS=ON >/dev/null
cmake --build --preset bench --target pendrel_benchmarks pendrel_cli -j 2

results="$root/build/bench/results"
rm -rf "$results"
mkdir -p "$results"
if ((smoke)); then
  export PENDREL_BENCH_SMOKE=1
  arguments=(--benchmark_min_time=0.01)
else
  unset PENDREL_BENCH_SMOKE
  arguments=(--benchmark_repetitions=5 --benchmark_report_aggregates_only=true)
fi

status=0
for program in json http handler memory; do
  echo "=== pendrel_bench_$program"
  if ! "$root/build/bench/bin/pendrel_bench_$program" "${arguments[@]}" \
      --benchmark_out="$results/$program.json" --benchmark_out_format=json \
      >"$results/$program.txt" 2>&1; then
    echo "pendrel_bench_$program failed:" >&2
    tail -n 20 "$results/$program.txt" >&2
    status=1
  fi
done

echo "=== pendrel serve against nginx + php-fpm (wrk)"
server_bench=(python3 "$root/bench/server/server_bench.py" --pendrel "$root/build/bench/bin/pendrel"
  --echo "$root/build/bench/bin/pendrel_bench_echo_handler" --out "$results/server.json")
((smoke)) && server_bench+=(--smoke)
if ! "${server_bench[@]}" >"$results/server.txt" 2>&1; then
  echo "the server benchmark failed:" >&2
  tail -n 20 "$results/server.txt" >&2
  status=1
fi

windows_report=""
if ((!smoke)); then
  echo "=== Windows timing program (MinGW-w64, under Wine; report only)"
  export WINEPREFIX="${WINEPREFIX:-$root/build/wine-bench}"
  export WINEDEBUG=-all
  export WINEDLLOVERRIDES="mscoree,mshtml="
  wine="$(command -v wine64 || echo /usr/lib/wine/wine64)"
  wineserver="$(command -v wineserver || echo /usr/lib/wine/wineserver)"
  mkdir -p "$WINEPREFIX"
  "$wine" wineboot -i >/dev/null 2>&1 || true
  "$wineserver" -p >/dev/null 2>&1 || true
  trap '"$wineserver" -k >/dev/null 2>&1 || true' EXIT
  cmake --preset windows -B "$root/build/bench-windows" -DCMAKE_BUILD_TYPE=Release \
    -DPENDREL_BUILD_BENCHMARKS=ON -DPENDREL_BUILD_TESTS=OFF -DPENDREL_BUILD_TOOLS=OFF >/dev/null
  cmake --build "$root/build/bench-windows" --target pendrel_bench_handler_win -j 2
  if (cd "$root/build/bench-windows/bin" && "$wine" pendrel_bench_handler_win.exe) \
      >"$results/windows.txt" 2>&1; then
    windows_report="$results/windows.txt"
  else
    echo "the Windows timing program failed:" >&2
    tail -n 20 "$results/windows.txt" >&2
    status=1
  fi
fi

echo
echo "=== Summary ($( ((smoke)) && echo "smoke run: tiny sizes, one run each, targets not judged" ||
  echo "medians of 5 repetitions"))"
jsons=()
for program in json http handler memory server; do
  [[ -f "$results/$program.json" ]] && jsons+=("$results/$program.json")
done
summarize=(python3 "$root/bench/summarize.py")
((smoke)) && summarize+=(--smoke)
if ! "${summarize[@]}" "${jsons[@]}" | tee "$results/summary.txt"; then
  status=1
fi
if [[ -n "$windows_report" ]]; then
  echo
  echo "=== Windows under Wine (report only)"
  cat "$windows_report"
fi
exit "$status"
