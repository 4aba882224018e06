#!/usr/bin/env bash
# End-to-end throughput: applications logging the message (int32, "hello world", hex uint32)
# into logferry-monitor, which writes every message to a DLT file (--quiet --dlt-file).
# Builds (Release, in build-bench) and runs, in a private run-state directory:
#   saturating  one application as fast as it can for 5 s
#   paced-1     one application at 300 000 messages/s for 10 s
#   paced-8     8 applications at 30 000 messages/s each for 10 s
#   idle        the monitor with nothing to do for 5 s (also with a DLT port open)
# For each: messages sent, delivered into the DLT file (and per second), discarded (the
# library's own count), CPU of the monitor and of the applications.
# Uses the system-wide listener name: run it under `flock /tmp/lf-listener.flock`.
set -euo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/e2e_common.sh"

# run NAME APPS SECONDS RATE
run() {
    local name=$1 apps=$2 seconds=$3 rate=$4 i
    start_monitor
    local began=$(date +%s.%N)
    for i in $(seq "$apps"); do
        "$load" log "L$i" "$seconds" "$rate" >"$work/load$i.txt" &
    done
    wait $(jobs -p | grep -v "^$monitor_pid$")
    stop_monitor
    local sent=0 discarded=0 app_cpu=0 line
    for i in $(seq "$apps"); do
        read -r _ s _ c < <(grep "^sent" "$work/load$i.txt")
        d=$(awk '/buffer full,/ {n += $(NF - 2)} END {print n + 0}' "$work/load$i.txt")
        sent=$((sent + s))
        discarded=$((discarded + d))
        app_cpu=$(awk -v a="$app_cpu" -v c="$c" 'BEGIN {printf "%.2f", a + c}')
    done
    local delivered
    delivered=$("$load" count "$work"/out.dlt*)
    printf '%-11s apps %d  %4ss  sent %9d  delivered %9d (%8.0f/s)  discarded %8d  lost %d  cpu monitor %5ss apps %5ss\n' \
        "$name" "$apps" "$seconds" "$sent" "$delivered" "$(awk -v d="$delivered" -v s="$seconds" 'BEGIN {print d / s}')" \
        "$discarded" "$((sent - delivered))" "$monitor_cpu" "$app_cpu"
}

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
run saturating 1 5 0
run paced-1 1 10 300000
run paced-8 8 10 30000
start_monitor
sleep 5
stop_monitor
echo "idle        monitor cpu ${monitor_cpu}s in 5 s ($(awk -v c="$monitor_cpu" 'BEGIN {printf "%.1f", c / 5 * 100}') % of a core)"
start_monitor --dlt-port 0
sleep 5
stop_monitor
echo "idle+port   monitor cpu ${monitor_cpu}s in 5 s ($(awk -v c="$monitor_cpu" 'BEGIN {printf "%.1f", c / 5 * 100}') % of a core)"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
