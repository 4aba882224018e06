#!/usr/bin/env bash
# Builds the API reference (HTML) from the public headers' contract comments with Doxygen
# (docs/Doxyfile) into build-docs/html. Every warning fails the run, among them every public
# name without a contract comment. Then checks that README.md and docs/*.md agree with the
# tree (scripts/check-docs.py).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh doxygen

out=${1:-build-docs}
inputs=("$PWD/docs/api.md")
for dir in include/logferry include/ara; do
    [ -d "$dir" ] && inputs+=("$PWD/$dir")
done
rm -rf "$out"
mkdir -p "$out"
LOGFERRY_VERSION=$(scripts/version.sh) LOGFERRY_DOCS_OUTPUT=$out LOGFERRY_DOCS_MAINPAGE=$PWD/docs/api.md LOGFERRY_DOCS_INPUT="${inputs[*]}" \
    LOGFERRY_DOCS_STRIP=$PWD/include doxygen docs/Doxyfile 2> "$out/warnings.log" || status=$?
if [ -s "$out/warnings.log" ] || [ "${status:-0}" -ne 0 ]; then
    cat "$out/warnings.log"
    echo "docs: doxygen reported the above (status ${status:-0})" >&2
    exit 1
fi
[ -f "$out/html/index.html" ] || { echo "docs: no $out/html/index.html" >&2; exit 1; }
# The pages and the tree agree: links resolve, the README's layout table names what exists.
python3 scripts/check-docs.py
echo "API reference: $out/html/index.html ($(find "$out/html" -name '*.html' | wc -l) pages, no warnings)"
