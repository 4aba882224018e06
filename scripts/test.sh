#!/usr/bin/env bash
# Checks formatting and clang-tidy, then builds the library and the test suite and runs it:
# once in a normal build with warnings as
# errors, once under AddressSanitizer and UndefinedBehaviorSanitizer, once under
# ThreadSanitizer (each halting on the first report). Installs what it needs first. Exits
# non-zero on any failure.
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

echo "=== lint: formatting and clang-tidy ==="
if scripts/lint.sh; then
    passed=$((passed + 1))
else
    echo "=== lint FAILED ==="
    failed=$((failed + 1))
fi

run_suite normal -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_suite asan-ubsan -DCMAKE_BUILD_TYPE=Debug -DLOGFERRY_SANITIZE=address,undefined
run_suite tsan -DCMAKE_BUILD_TYPE=Debug -DLOGFERRY_SANITIZE=thread

# Nothing the suites created may stay in /dev/shm.
leftover=$(comm -13 <(printf '%s\n' "$shm_before") <(ls /dev/shm | grep -E '^logferry-' | sort || true) | grep . || true)
if [ -n "$leftover" ]; then
    echo "left behind in /dev/shm: $leftover"
    failed=$((failed + 1))
fi
echo "suites: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
