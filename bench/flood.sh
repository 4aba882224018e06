#!/usr/bin/env bash
# Flood: 32 applications, 4 threads each, log the message (int32, "hello world", hex uint32)
# flat out for 5 s into logferry-monitor (--quiet --dlt-file) on this machine. Reports the
# messages delivered into the DLT file per second in all and per application (least, median,
# most), those the library discarded and reported ("buffer full"), those neither delivered
# nor reported, the monitor's CPU time and the longest single log call (log_start to
# log_finish, measured by every thread of the load generator).
# Goals: >= 200 000 messages/s in all; the least-served application >= half the median;
# every message delivered or reported.
# APPS, THREADS and DURATION change the shape. Uses the system-wide listener name: run it
# under `flock /tmp/lf-listener.flock`.
set -euo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/e2e_common.sh"
apps=${APPS:-32}
threads=${THREADS:-4}
seconds=${DURATION:-5}

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
start_monitor
pids=()
for i in $(seq "$apps"); do
    "$load" flood "F$i" "$seconds" "$threads" >"$work/flood$i.txt" 2>&1 &
    pids+=($!)
done
wait "${pids[@]}"
stop_monitor

sent=0 discarded=0 longest=0
for i in $(seq "$apps"); do
    read -r _ s _ _ _ l < <(grep "^sent" "$work/flood$i.txt")
    d=$(awk '/buffer full,/ {n += $(NF - 2)} END {print n + 0}' "$work/flood$i.txt")
    sent=$((sent + s))
    discarded=$((discarded + d))
    [ "$l" -gt "$longest" ] && longest=$l
done
delivered=$("$load" count "$work"/out.dlt*)
read -r least median most < <("$load" per-app "$work"/out.dlt* | awk '$1 ~ /^F[0-9]+$/ {print $2}' | sort -n |
    awk -v apps="$apps" '{v[NR] = $1} END {for (i = NR + 1; i <= apps; i++) v0++; if (v0) print 0, v[int((NR + 1) / 2)], v[NR]; else print v[1], v[int((NR + 1) / 2)], v[NR]}')
per_second() { awk -v n="$1" -v s="$seconds" 'BEGIN {printf "%.0f", n / s}'; }
echo "flood: $apps applications x $threads threads, ${seconds} s"
echo "sent        $sent"
echo "delivered   $delivered ($(per_second "$delivered")/s in all)"
echo "per app/s   least $(per_second "$least")  median $(per_second "$median")  most $(per_second "$most")"
echo "discarded   $discarded (reported by the library)"
echo "unaccounted $((sent - delivered - discarded))"
echo "monitor cpu ${monitor_cpu}s in ${seconds} s"
echo "longest log call ${longest} us"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
