# Shared by the end-to-end benchmarks (bench/e2e_dlt.sh, bench/flood.sh), sourced: builds
# logferry-monitor and the load generator (Release, in build-bench, or $BUILD), makes a
# private run-state directory removed at exit, and starts and stops the monitor with
# --quiet --dlt-file, measuring its CPU time.
# Sets: root build monitor load work hz; start_monitor [ARGS...]; stop_monitor (sets
# monitor_cpu, in seconds); cpu_ticks PID. MONITOR_PREFIX, if set, is a command to run the
# monitor under (e.g. "nice -n 0", since the monitor raises itself to nice -10 as root).

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD:-"$root/build-bench"}
[ -e "$build/CMakeCache.txt" ] || cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DLOGFERRY_BUILD_BENCH=ON -DLOGFERRY_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target logferry-monitor e2e_load -j"${JOBS:-2}" >/dev/null
monitor="$build/daemon/logferry-monitor"
load="$build/bench/e2e_load"

work=$(mktemp -d /tmp/logferry-e2e.XXXXXX)
mkdir -p "$work/ara_DLT"
export ADAPTIVE_RUNSTATE_DIR="$work"
trap 'kill $monitor_pid 2>/dev/null || true; rm -rf "$work"' EXIT
monitor_pid=

hz=$(getconf CLK_TCK)
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }

start_monitor() {
    rm -f "$work"/out.dlt*
    ${MONITOR_PREFIX:-} "$monitor" --quiet --dlt-file "$work/out.dlt" "$@" >"$work/monitor.txt" 2>&1 &
    monitor_pid=$!
    for _ in $(seq 100); do
        [ -e "$work/ara_DLT/logferry-daemon-listener.lock" ] && break
        sleep 0.05
    done
    monitor_ticks=$(cpu_ticks "$monitor_pid")
}

stop_monitor() {
    local ticks
    ticks=$(cpu_ticks "$monitor_pid")
    monitor_cpu=$(awk -v t=$((ticks - monitor_ticks)) -v hz="$hz" 'BEGIN {printf "%.2f", t / hz}')
    kill -INT "$monitor_pid"
    wait "$monitor_pid" || true
    monitor_pid=
}
