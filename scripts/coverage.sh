#!/usr/bin/env bash
# Builds the library and the test suite with coverage instrumentation (build-ci-coverage),
# runs the whole suite, and prints the line and branch coverage of the library's sources
# (src/, without platform/jx_osal: the stand-in for the platform's OS abstraction library,
# which is not part of liblogferry). Installs what it needs first. Exits non-zero when a test
# fails or when line coverage is below LOGFERRY_MIN_LINE_COVERAGE percent (default 90).
# Usage: scripts/coverage.sh [--build-only]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh gcovr

jobs=${LOGFERRY_JOBS:-2}
minimum=${LOGFERRY_MIN_LINE_COVERAGE:-90}
dir=build-ci-coverage

echo "=== coverage build ==="
# Atomic counter updates: the library and its tests run several threads, and racing plain
# updates leave counts that gcov cannot read (negative branch counts).
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug "-DCMAKE_CXX_FLAGS=--coverage -fprofile-update=atomic" \
    -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
    > "$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }
cmake --build "$dir" -j"$jobs"
# --build-only: the build alone (scripts/test.sh builds it ahead while another suite runs).
[ "${1:-}" != --build-only ] || exit 0

# Counters of an earlier run would add up with this one's.
find "$dir" -name '*.gcda' -delete

suite=0
ctest --test-dir "$dir" -j"$jobs" --output-on-failure --no-tests=error 2>&1 | tee "$dir.ctest.log" || suite=1

echo "=== coverage of src/ ==="
# The compiler identification objects under CMakeFiles/<version> are not ours. Branches: those
# the compiler adds for exceptions and those it proves unreachable are left out.
gcovr_args=(--root . --object-directory "$dir" --exclude-directories "$dir/CMakeFiles/[0-9.]+$"
    --filter 'src/' --exclude 'platform/jx_osal/'
    --exclude-unreachable-branches --exclude-throw-branches -j "$jobs")
gcovr "${gcovr_args[@]}" --txt "$dir/coverage.txt" --json-summary "$dir/coverage-summary.json" \
    > /dev/null
gcovr "${gcovr_args[@]}" --branches --txt "$dir/coverage-branches.txt" > /dev/null
cat "$dir/coverage.txt" "$dir/coverage-branches.txt"

read -r line_percent branch_percent < <(python3 - "$dir/coverage-summary.json" << 'EOF'
import json, sys
summary = json.load(open(sys.argv[1]))
print(summary["line_percent"], summary["branch_percent"])
EOF
)
echo "line coverage: ${line_percent} %  branch coverage: ${branch_percent} %  (required lines: ${minimum} %)"

if [ "$suite" -ne 0 ]; then
    echo "=== coverage suite FAILED ==="
    exit 1
fi
if ! python3 -c "import sys; sys.exit(0 if float(sys.argv[1]) >= float(sys.argv[2]) else 1)" \
    "$line_percent" "$minimum"; then
    echo "=== line coverage ${line_percent} % is below ${minimum} % ==="
    exit 1
fi
