#!/usr/bin/env bash
# Builds everything that ships (library, platform stand-in, logferry-monitor, the example;
# the test suite is scripts/test.sh's business), installs it into the build directory,
# and runs the example application under the installed logferry-monitor with a private
# run-state directory: the monitor raises the example's MAIN context to debug and greets
# it, and its decoded lines are shown at the end, followed by the DLT storage file it wrote
# as Debian's dlt-convert (a DLT client this project did not write) shows it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=${LOGFERRY_JOBS:-2}
build=build-demo
prefix=$PWD/$build/install

echo "=== building ($build) ==="
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLOGFERRY_BUILD_TESTS=OFF > "$build.configure.log" 2>&1 || { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j"$jobs"
cmake --install "$build" --prefix "$prefix" > /dev/null

run=$(mktemp -d /tmp/logferry-demo.XXXXXX)
mkdir "$run/ara_DLT"
export ADAPTIVE_RUNSTATE_DIR=$run
monitor_pid=
cleanup() {
    if [ -n "$monitor_pid" ] && kill -0 "$monitor_pid" 2> /dev/null; then
        kill -TERM "$monitor_pid" 2> /dev/null || true
        wait "$monitor_pid" 2> /dev/null || true
    fi
    rm -rf "$run"
}
trap cleanup EXIT

# shellcheck source=scripts/wait-for-line.sh
. scripts/wait-for-line.sh
# Polls for a line in the monitor's output: up to $2 tenths of a second.
wait_for() { wait_for_line "$run/monitor.out" "$1" "$2"; }

echo
echo "=== starting the monitor (installed: $prefix/bin/logferry-monitor) ==="
"$prefix/bin/logferry-monitor" --level MAIN=debug --say "hello from logferry-monitor" --dlt-file "$run/demo.dlt" \
    > "$run/monitor.out" 2> "$run/monitor.err" &
monitor_pid=$!
wait_for "^-- listening" 50

echo
echo "=== running the example application ==="
"$build/examples/logferry-example"
wait_for "^-- detach" 100

kill -TERM "$monitor_pid"
wait "$monitor_pid"
monitor_pid=

echo
echo "=== what the monitor printed ==="
cat "$run/monitor.out"
if [ -s "$run/monitor.err" ]; then
    echo
    echo "=== monitor diagnostics ==="
    cat "$run/monitor.err"
fi

echo
echo "=== the DLT file, as dlt-convert -a shows it ==="
dlt-convert -a "$run/demo.dlt"
