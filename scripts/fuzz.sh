#!/usr/bin/env bash
# Builds the libFuzzer harnesses of fuzz/ with clang (address and undefined-behaviour
# sanitizers) and, for every harness:
#   1. runs every input kept in fuzz/regressions/<harness>/ once (each must pass);
#   2. fuzzes for the given number of seconds (default 60), starting from the seed corpus
#      fuzz/corpus/<harness>/ and the regression inputs; new inputs go to a scratch corpus
#      in the build directory, never into the checked-in one.
# Exits non-zero on any finding (crash, sanitizer report, broken expectation, leak, time-out
# or memory limit). A finding is copied into fuzz/regressions/<harness>/, where it belongs
# from then on (commit it with the fix); tests/whole/test_fuzz_regressions.cpp replays the same
# inputs in the normal test suites.
#
# Usage: scripts/fuzz.sh [seconds]
# Environment: LOGFERRY_FUZZ_BUILD (build directory, default build-fuzz), LOGFERRY_JOBS (how
# many harnesses run at once, default 2).
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ]; then
    echo "usage: $0 [seconds]" >&2
    exit 2
fi
build=${LOGFERRY_FUZZ_BUILD:-build-fuzz}
jobs=${LOGFERRY_JOBS:-2}
started=$(date +%s)

scripts/install-deps.sh clang libclang-rt-14-dev

echo "=== building the harnesses in $build ==="
mkdir -p "$build"
cmake -S fuzz -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo > "$build/configure.log" 2>&1 ||
    { cat "$build/configure.log"; exit 1; }
cmake --build "$build" -j"$jobs"

mapfile -t harnesses < "$build/harnesses.txt"
if [ ${#harnesses[@]} -eq 0 ]; then
    echo "no harnesses were built" >&2
    exit 1
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

# One harness: replay the kept regressions, then fuzz. Writes its summary line to
# $work/summary and, on any failure, a reason to $work/failed.
fuzz_one() {
    local harness=$1
    local program="$build/$harness"
    local regressions="fuzz/regressions/$harness"
    local seeds="fuzz/corpus/$harness"
    local work="$build/run/$harness"
    rm -rf "$work/artifacts" "$work/failed" "$work/summary"
    mkdir -p "$work/corpus" "$work/artifacts"
    local log="$work/fuzz.log"

    local kept=0
    if [ -d "$regressions" ]; then
        kept=$(find "$regressions" -type f | wc -l)
    fi
    echo "=== $harness: $kept regression input(s), then fuzzing for ${seconds}s ==="
    if [ "$kept" -gt 0 ]; then
        if ! find "$regressions" -type f -print0 | xargs -0 "$program" > "$work/regressions.log" 2>&1; then
            tail -n 40 "$work/regressions.log"
            echo "=== $harness: a regression input FAILED ==="
            echo "$harness (regressions)" >> "$work/failed"
        fi
    fi

    local inputs=("$work/corpus")
    [ -d "$seeds" ] && inputs+=("$seeds")
    [ "$kept" -gt 0 ] && inputs+=("$regressions")
    local status=0
    "$program" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=3072 -print_final_stats=1 \
        -artifact_prefix="$work/artifacts/" "${inputs[@]}" > "$log" 2>&1 || status=$?
    local runs corpus findings
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    corpus=$(find "$work/corpus" -type f | wc -l)
    findings=$(find "$work/artifacts" -type f | wc -l)
    if [ "$status" -ne 0 ] || [ "$findings" -gt 0 ]; then
        {
            grep -E 'expectation broken|ERROR:|SUMMARY:|runtime error' "$log" | head -n 20 || true
            tail -n 5 "$log"
            mkdir -p "$regressions"
            for artifact in "$work/artifacts"/*; do
                [ -f "$artifact" ] || continue
                cp "$artifact" "$regressions/"
                echo "finding kept as $regressions/$(basename "$artifact")"
            done
            echo "=== $harness: FINDING (exit status $status, log $log) ==="
        }
        echo "$harness" >> "$work/failed"
    fi
    printf '%-24s %10s runs  %5s corpus inputs  %s\n' "$harness" "${runs:-?}" "$corpus" \
        "$([ "$status" -eq 0 ] && [ "$findings" -eq 0 ] && echo ok || echo FINDING)" > "$work/summary"
}

# The harnesses are independent: run as many at once as there are jobs.
running=0
for harness in "${harnesses[@]}"; do
    if [ "$running" -ge "$jobs" ]; then
        wait -n || true
        running=$((running - 1))
    fi
    fuzz_one "$harness" &
    running=$((running + 1))
done
wait

failed=()
summary=()
for harness in "${harnesses[@]}"; do
    work="$build/run/$harness"
    if [ -f "$work/summary" ]; then
        summary+=("$(cat "$work/summary")")
    else
        summary+=("$(printf '%-24s did not finish' "$harness")")
        failed+=("$harness (did not finish)")
    fi
    if [ -f "$work/failed" ]; then
        mapfile -t reasons < "$work/failed"
        failed+=("${reasons[@]}")
    fi
done

echo "=== summary (${seconds}s per harness, $(( $(date +%s) - started ))s in all) ==="
printf '%s\n' "${summary[@]}"
if [ ${#failed[@]} -gt 0 ]; then
    echo "failed: ${failed[*]}"
    exit 1
fi
echo "no findings"
