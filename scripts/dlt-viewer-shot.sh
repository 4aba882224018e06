#!/usr/bin/env bash
# Takes a screenshot of dlt-viewer connected to logferry-monitor's DLT port: the monitor runs
# with --dlt-port under a private run-state directory, dlt-viewer runs under a virtual X server
# (Xvfb) and is connected through its ECU dialog (driven with xdotool), the example
# application runs a few times under the monitor, and the screen is saved as a PNG:
# docs/dlt-viewer.png, or the path given as argument. Installs dlt-viewer, xvfb, xdotool and
# imagemagick when missing. The picture carries, as its PNG comment, the checksum of the
# example's expected DLT transcript (tests/data/example.dlt.txt), which follows the example: the
# suite's test Docs.DltViewerPictureShowsTheCurrentExample fails once they no longer match.
# Uses the system-wide listener name: run it under `flock /tmp/lf-listener.flock`.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
shot=${1:-"$root/docs/dlt-viewer.png"}
build=${BUILD:-"$root/build-shot"}
runs=${RUNS:-4}

need=()
for tool in dlt-viewer:dlt-viewer Xvfb:xvfb xdotool:xdotool import:imagemagick; do
    command -v "${tool%%:*}" >/dev/null 2>&1 || need+=("${tool##*:}")
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

"$build/daemon/logferry-monitor" --quiet --dlt-port 0 --level MAIN=debug >"$work/monitor.txt" 2>&1 &
pids+=($!)
poll 100 grep -q '^dlt-port ' "$work/monitor.txt"
port=$(awk '/^dlt-port / {print $2}' "$work/monitor.txt")
echo "monitor: DLT port $port"

display=:$((90 + RANDOM % 100))
Xvfb "$display" -screen 0 1400x800x24 -nolisten tcp >/dev/null 2>&1 &
pids+=($!)
export DISPLAY=$display
poll 50 xdotool getmouselocation >/dev/null 2>&1
HOME=$work XDG_RUNTIME_DIR=$work dlt-viewer -s >/dev/null 2>&1 &
pids+=($!)
poll 200 sh -c "xdotool search --name 'DLT' >/dev/null 2>&1"
sleep 3  # the main window settles

# The viewer connects to an ECU entered in its dialog: Config > ECU Add, ID and "get log info"
# on the ECU tab, the port on the TCP tab (host localhost), OK, then "connect all ECUs" in the
# toolbar. The positions are those of the viewer's window at this screen size.
click() { xdotool mousemove "$1" "$2" click "${3:-1}"; sleep 0.7; }
click 184 10                           # Config
click 222 34                           # ECU Add...
xdotool mousemove 683 161 click --repeat 3 1
xdotool key ctrl+a type "LFER"         # ECU ID
click 465 492                          # Send "Get Log Info" if online
click 523 103                          # TCP tab
xdotool mousemove 575 215 click --repeat 3 1
xdotool key ctrl+a type "$port"        # IP port (host: localhost)
click 806 620                          # OK
click 205 42                           # connect all ECUs
sleep 2

for _ in $(seq "$runs"); do
    "$build/examples/logferry-example" >/dev/null
done
sleep 3  # the viewer shows what arrived and a keep-alive or two
click 109 364                          # the project's Config tab: the ECU, its applications and contexts
xdotool key ctrl+plus                  # expand all ECUs
sleep 1
mkdir -p "$(dirname "$shot")"
sum=$(sha256sum "$root/tests/data/example.dlt.txt" | cut -d' ' -f1)
import -window root png:- | convert png:- -trim +repage -set comment "logferry-example $sum" png:"$shot"
echo "screenshot: $shot"
