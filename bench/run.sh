#!/usr/bin/env bash
# Builds the benchmarks (Release, in build-bench) and runs them. Extra arguments go to the
# benchmark binary (for example --benchmark_filter=BM_message). REPETITIONS sets how many
# times each benchmark runs (default 5; the summary then shows medians).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build-bench"
repetitions=${REPETITIONS:-5}

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DLOGFERRY_BUILD_BENCH=ON -DLOGFERRY_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target bench_logging -j"${JOBS:-2}" >/dev/null

cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')
echo "machine: $(nproc) cores, ${cpu:-unknown CPU}, clock source $(cat /sys/devices/system/clocksource/clocksource0/current_clocksource 2>/dev/null || echo unknown)"
echo "load before the run: $(cut -d' ' -f1-3 /proc/loadavg)"

"$build/bench/bench_logging" --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true --benchmark_color=false "$@"
echo "load after the run: $(cut -d' ' -f1-3 /proc/loadavg)"
