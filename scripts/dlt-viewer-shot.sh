#!/usr/bin/env bash
# Takes a screenshot of dlt-viewer showing what logferry-monitor forwarded over its DLT port:
# the monitor runs with --dlt-port, the example application runs a few times under it,
# dlt-receive (a DLT client of the port) stores what arrives, and dlt-viewer opens that file
# under a virtual X server. Leaves docs/dlt-viewer.png (or the path given as argument).
# Installs dlt-viewer, dlt-tools, xvfb, x11-apps (xwd) and imagemagick when missing.
# Uses the system-wide listener name: run it under `flock /tmp/lf-listener.flock`.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
shot=${1:-"$root/docs/dlt-viewer.png"}
build=${BUILD:-"$root/build-shot"}
runs=${RUNS:-4}

need=()
for tool in dlt-viewer:dlt-viewer dlt-receive:dlt-tools Xvfb:xvfb xwd:x11-apps convert:imagemagick; do
    command -v "${tool%%:*}" >/dev/null 2>&1 && [ "$(command -v "${tool%%:*}")" != /usr/local/bin/convert ] ||
        need+=("${tool##*:}")
done
if [ ${#need[@]} -gt 0 ]; then
    apt-get update >/dev/null
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${need[@]}" >/dev/null
fi

[ -e "$build/CMakeCache.txt" ] || cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DLOGFERRY_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target logferry-monitor logferry-example -j"${JOBS:-2}" >/dev/null

work=$(mktemp -d /tmp/logferry-shot.XXXXXX)
mkdir -p "$work/ara_DLT"
export ADAPTIVE_RUNSTATE_DIR="$work"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# poll TRIES COMMAND...: runs COMMAND every 0.1 s until it succeeds, at most TRIES times.
poll() {
    local tries=$1
    shift
    for _ in $(seq "$tries"); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}

"$build/tools/logferry-monitor" --quiet --dlt-port 0 --level MAIN=debug >"$work/monitor.txt" 2>&1 &
pids+=($!)
poll 100 grep -q '^dlt-port ' "$work/monitor.txt"
port=$(awk '/^dlt-port / {print $2}' "$work/monitor.txt")
echo "monitor: DLT port $port"

dlt-receive -o "$work/received.dlt" -p "$port" 127.0.0.1 >/dev/null 2>&1 &
pids+=($!)
poll 50 test -s "$work/received.dlt"  # the first keep-alive
for _ in $(seq "$runs"); do
    "$build/examples/logferry-example" >/dev/null
done
sleep 1.5  # the last messages and a keep-alive reach dlt-receive
kill "${pids[1]}"

display=:$((90 + RANDOM % 100))
Xvfb "$display" -screen 0 1400x800x24 -nolisten tcp >/dev/null 2>&1 &
pids+=($!)
poll 50 xdpyinfo -display "$display" >/dev/null 2>&1 || poll 50 xwininfo -display "$display" -root >/dev/null 2>&1
DISPLAY=$display XDG_RUNTIME_DIR=$work dlt-viewer -s -l "$work/received.dlt" >/dev/null 2>&1 &
pids+=($!)
poll 200 sh -c "xwininfo -display $display -root -tree | grep -qi 'dlt'"
sleep 3  # the viewer fills its table
mkdir -p "$(dirname "$shot")"
xwd -display "$display" -root -silent | convert xwd:- -trim +repage png:"$shot"
echo "screenshot: $shot"
