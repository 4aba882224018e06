#!/usr/bin/env bash
# What CI runs. In order:
#   lint        formatting drift and clang-tidy (scripts/lint.sh);
#   docs        the API reference, failing on any Doxygen warning (scripts/docs.sh);
#   normal      the library and the whole suite, warnings as errors;
#   asan-ubsan  the same under AddressSanitizer and UndefinedBehaviorSanitizer;
#   tsan        the same under ThreadSanitizer (each sanitizer halts on its first report);
#   fuzz        every libFuzzer harness for LOGFERRY_FUZZ_SECONDS (60) seconds (scripts/fuzz.sh);
#   coverage    the suite in a coverage build, line and branch coverage of src/, at least 90 %
#               of lines (scripts/coverage.sh);
#   arm64       the cross build for 64-bit Arm, its suite under qemu's user mode and in an
#               emulated arm64 machine (scripts/arm64.sh);
#   package     the Debian packages: built, checked with lintian, installed, used by an
#               application under the installed monitor and purged again (scripts/package.sh).
# LOGFERRY_STAGES picks a subset for a quicker local run (default: all of them, as CI).
# Installs what it needs first. Runs every stage even after a failure; exits non-zero on any.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=${LOGFERRY_JOBS:-2}
export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1
shm_before=$(ls /dev/shm | grep -E '^logferry-' | sort || true)
passed=0
failed=0

run_suite() {
    local name=$1
    shift
    local dir=build-ci-$name
    echo "=== $name build ==="
    cmake -S . -B "$dir" -DLOGFERRY_WERROR=ON "$@" > "$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }
    cmake --build "$dir" -j"$jobs"
    local log=$dir.ctest.log
    if ctest --test-dir "$dir" -j"$jobs" --output-on-failure --no-tests=error 2>&1 | tee "$log"; then
        :
    else
        echo "=== $name suite FAILED ==="
        failed=$((failed + 1))
    fi
    local total fails
    total=$(sed -n 's/.*tests failed out of \([0-9]*\).*/\1/p' "$log" | tail -n 1)
    fails=$(sed -n 's/.*, \([0-9]*\) tests failed out of.*/\1/p' "$log" | tail -n 1)
    passed=$((passed + ${total:-0} - ${fails:-0}))
    failed=$((failed + ${fails:-0}))
}

stages=" ${LOGFERRY_STAGES:-lint docs normal asan-ubsan tsan fuzz coverage arm64 package} "
timings=()
wanted() { [[ "$stages" == *" $1 "* ]]; }
timed() {
    local name=$1 start status=0
    shift
    start=$(date +%s)
    "$@" || status=$?
    timings+=("$(printf '%-11s %4d s' "$name" $(($(date +%s) - start)))")
    return "$status"
}
# A stage that is one script: counts as one passed or failed check.
run_script() {
    local name=$1
    shift
    echo "=== $name: $* ==="
    if timed "$name" "$@"; then
        passed=$((passed + 1))
    else
        echo "=== $name FAILED ==="
        failed=$((failed + 1))
    fi
}

wanted lint && run_script lint scripts/lint.sh
wanted docs && run_script docs scripts/docs.sh
wanted normal && timed normal run_suite normal -DCMAKE_BUILD_TYPE=RelWithDebInfo
wanted asan-ubsan && timed asan-ubsan run_suite asan-ubsan -DCMAKE_BUILD_TYPE=Debug -DLOGFERRY_SANITIZE=address,undefined
wanted tsan && timed tsan run_suite tsan -DCMAKE_BUILD_TYPE=Debug -DLOGFERRY_SANITIZE=thread
wanted fuzz && run_script fuzz scripts/fuzz.sh "${LOGFERRY_FUZZ_SECONDS:-60}"
wanted coverage && run_script coverage scripts/coverage.sh
wanted arm64 && run_script arm64 scripts/arm64.sh
# Last: it installs the packages system-wide for a while (and purges them again).
wanted package && run_script package scripts/package.sh

# Nothing the suites created may stay in /dev/shm.
leftover=$(comm -13 <(printf '%s\n' "$shm_before") <(ls /dev/shm | grep -E '^logferry-' | sort || true) | grep . || true)
if [ -n "$leftover" ]; then
    echo "left behind in /dev/shm: $leftover"
    failed=$((failed + 1))
fi
echo "=== timings ==="
printf '  %s\n' "${timings[@]}"
echo "suites: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
