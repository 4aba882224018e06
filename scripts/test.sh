#!/usr/bin/env bash
# What CI runs. In order:
#   lint        formatting drift and clang-tidy (scripts/lint.sh);
#   docs        the API reference, failing on any Doxygen warning (scripts/docs.sh);
#   normal      the library and the whole suite, warnings as errors;
#   asan-ubsan  the same under AddressSanitizer and UndefinedBehaviorSanitizer;
#   tsan        the same under ThreadSanitizer (each sanitizer halts on its first report);
#   coverage    the suite in a coverage build, line and branch coverage of src/, at least 90 %
#               of lines (scripts/coverage.sh);
#   fuzz        every libFuzzer harness for LOGFERRY_FUZZ_SECONDS (60) seconds (scripts/fuzz.sh);
#   arm64       the cross build for 64-bit Arm, its suite under qemu's user mode and in an
#               emulated arm64 machine (scripts/arm64.sh);
#   package     the Debian packages: built, checked with lintian, installed, used by an
#               application under the installed monitor and purged again (scripts/package.sh).
# While a suite runs, the next stage's programs are built in the background at the lowest
# priority (normal builds asan-ubsan's, asan-ubsan tsan's, tsan coverage's, coverage arm64's).
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

# build_suite <name> <cmake options...>: configures and builds build-ci-<name>.
build_suite() {
    local name=$1
    shift
    local dir=build-ci-$name
    cmake -S . -B "$dir" -DLOGFERRY_WERROR=ON "$@" > "$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; return 1; }
    cmake --build "$dir" -j"$jobs"
}

# A later stage's build, started in the background at the lowest priority while a suite runs:
# the suites spend most of their time waiting (daemons, time-outs, the listener lock's chain),
# and their processors would otherwise stay idle. When that stage comes, its own build finds
# little or nothing left to do (and shows any error). One at a time; the log goes to
# <build>.ahead.log.
ahead_pid=
build_ahead() {
    local log=$1
    shift
    wait_ahead
    (
        renice -n 19 -p "$BASHPID" > /dev/null
        "$@"
    ) > "$log" 2>&1 &
    ahead_pid=$!
}
wait_ahead() {
    if [ -n "$ahead_pid" ]; then
        wait "$ahead_pid" || true
        ahead_pid=
    fi
}

# run_suite <name> <cmake options...>: builds and runs one suite; once its own build is done,
# the next stage's build goes ahead (ahead_of).
run_suite() {
    local name=$1
    shift
    local dir=build-ci-$name
    echo "=== $name build ==="
    wait_ahead
    if ! build_suite "$name" "$@"; then
        echo "=== $name build FAILED ==="
        failed=$((failed + 1))
        return 1
    fi
    ahead_of "$name"
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

stages=" ${LOGFERRY_STAGES:-lint docs normal asan-ubsan tsan coverage fuzz arm64 package} "
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
asan_options=(-DCMAKE_BUILD_TYPE=Debug -DLOGFERRY_SANITIZE=address,undefined)
tsan_options=(-DCMAKE_BUILD_TYPE=Debug -DLOGFERRY_SANITIZE=thread)
# ahead_of <stage>: the build that goes ahead while that stage's suite runs (when wanted).
ahead_of() {
    case $1 in
    normal) wanted asan-ubsan && build_ahead build-ci-asan-ubsan.ahead.log build_suite asan-ubsan "${asan_options[@]}" ;;
    asan-ubsan) wanted tsan && build_ahead build-ci-tsan.ahead.log build_suite tsan "${tsan_options[@]}" ;;
    tsan) wanted coverage && build_ahead build-ci-coverage.ahead.log scripts/coverage.sh --build-only ;;
    coverage) wanted arm64 && build_ahead build-arm64.ahead.log env ARM64_STAGES=build scripts/arm64.sh ;;
    esac
    return 0
}
coverage_stage() {
    wait_ahead
    scripts/coverage.sh --build-only || return 1
    ahead_of coverage
    scripts/coverage.sh
}
wanted normal && timed normal run_suite normal -DCMAKE_BUILD_TYPE=RelWithDebInfo
wanted asan-ubsan && timed asan-ubsan run_suite asan-ubsan "${asan_options[@]}"
wanted tsan && timed tsan run_suite tsan "${tsan_options[@]}"
wanted coverage && run_script coverage coverage_stage
wait_ahead
wanted fuzz && run_script fuzz scripts/fuzz.sh "${LOGFERRY_FUZZ_SECONDS:-60}"
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
