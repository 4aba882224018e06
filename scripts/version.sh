#!/usr/bin/env bash
# Prints the project's version, as the top-level CMakeLists.txt's project() call states it.
set -euo pipefail
cd "$(dirname "$0")/.."
version=$(sed -n 's/^project(logferry VERSION \([0-9][0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "version.sh: no version in CMakeLists.txt" >&2; exit 1; }
echo "$version"
