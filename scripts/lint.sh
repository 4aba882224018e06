#!/usr/bin/env bash
# Static checks. Installs what it needs first; exits non-zero on any finding.
# 1. Formatting: every C++ file under src/, include/, daemon/, examples/, tests/, fuzz/ and
#    bench/ (build directories left out) must be as clang-format 14 formats it (.clang-format).
# 2. clang-tidy (.clang-tidy, every finding an error) over every src/**/*.cpp and the library's
#    headers they include (include/logferry/, src/), with the compile commands of a
#    configure-only build in build-lint.
# 3. Function size: no function in the library or the daemon side longer than 80 lines: the
#    library through .clang-tidy's readability-function-size (LineThreshold 80), the daemon
#    side in a second pass with that check alone over every daemon/**/*.cpp and the daemon/
#    headers they include.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh clang-format clang-tidy

jobs=${LOGFERRY_JOBS:-2}
failed=0

for tool in clang-format clang-tidy; do
    if ! "$tool" --version | grep -q 'version 14\.'; then
        echo "warning: $("$tool" --version | grep version) is not version 14; its results may differ"
    fi
done

echo "=== clang-format ==="
mapfile -t sources < <(find src include daemon examples tests fuzz bench -type d -name 'build*' -prune -o \
    -type f \( -name '*.cpp' -o -name '*.hpp' -o -name '*.h' -o -name '*.cc' \) -print | sort)
if clang-format --dry-run --Werror "${sources[@]}"; then
    echo "${#sources[@]} files formatted"
else
    echo "=== formatting drift (fix with: clang-format -i <file>) ==="
    failed=1
fi

echo "=== clang-tidy ==="
dir=build-lint
cmake -S . -B "$dir" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DLOGFERRY_BUILD_TESTS=OFF > "$dir.configure.log" 2>&1 \
    || { cat "$dir.configure.log"; exit 1; }
# run_tidy <title> <log> <header filter> <clang-tidy options...> -- <files...>: one clang-tidy
# per file, at most $jobs at once; each file's report is printed whole. Any finding fails.
run_tidy() {
    local title=$1 log=$2 headers=$3 status=0 findings
    shift 3
    local options=()
    while [ "$1" != "--" ]; do
        options+=("$1")
        shift
    done
    shift
    printf '%s\n' "$@" | xargs -P "$jobs" -I{} sh -c \
        'dir=$1 headers=$2; shift 2; out=$(clang-tidy -p "$dir" --quiet --header-filter="$headers" "$@" 2>&1)
        status=$?; printf "%s\n" "$out"; exit $status' \
        sh "$dir" "$headers" "${options[@]}" {} > "$log" || status=$?
    grep -v -E '^[0-9]+ warnings? (and [0-9]+ errors? )?generated\.$|^Suppressed [0-9]+ warnings|^Use -header-filter|^$' "$log" || true
    findings=$(grep -c -E '(warning|error): ' "$log" || true)
    if [ "$status" -ne 0 ] || [ "$findings" -ne 0 ]; then
        echo "=== $title: $findings findings in $# files ==="
        failed=1
    else
        echo "$# files without findings ($title)"
    fi
}

mapfile -t library_sources < <(find src -type f -name '*.cpp' | sort)
run_tidy clang-tidy "$dir/clang-tidy.log" "include/logferry/.*|src/.*" --warnings-as-errors="*" -- "${library_sources[@]}"

echo "=== clang-tidy: function size, daemon side ==="
# The library's sources get the check with the rest of .clang-tidy (at most 80 lines); the
# daemon side, which the full set of checks does not cover, gets it alone.
size_config='{Checks: "-*,readability-function-size", WarningsAsErrors: "*",
  CheckOptions: [{key: readability-function-size.LineThreshold, value: 80}]}'
mapfile -t daemon_sources < <(find daemon -type f -name '*.cpp' | sort)
run_tidy "function size (split what is over 80 lines)" "$dir/clang-tidy-function-size.log" "daemon/.*" \
    --config="$size_config" -- "${daemon_sources[@]}"

if [ "$failed" -ne 0 ]; then
    echo "=== lint FAILED ==="
    exit 1
fi
echo "=== lint passed ==="
