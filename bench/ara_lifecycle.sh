#!/usr/bin/env bash
# shellcheck source-path=SCRIPTDIR disable=SC2119  # start_monitor takes optional arguments
# Whole-process benchmark of ara::log through its life: applications built on ara::log alone
# (bench/ara_lifecycle.cpp) logging into the real logferry-monitor, which writes every message
# to a DLT file (--quiet --dlt-file); what arrived is counted entry by entry in that file.
# Builds (Release, in build-bench) and runs, each with a monitor of its own in a private
# run-state directory:
#   burst        T threads x M messages logged right after the first CreateLogger, the
#                program returning once the DLT file stops growing: 4 x 10 000 and
#                1 x 100 000; messages arrived, and the program's VmRSS before the burst, at
#                its peak (sampled every millisecond until the backlog has drained) and after
#   short lives  15 waves of 10 programs started at once, each logging 100 messages and
#                returning: messages arrived of 15 000, the wall time of all waves, and the
#                "proxy watchdog triggered" lines of the monitor (an announcement left behind
#                by a program that ended)
#   idle         a program with logging up (CreateLogger done) and nothing logged for 10 s:
#                its processor time as % of one core and its voluntary context switches per
#                second (getrusage of the whole process)
#   frozen       a daemon-side peer holds the application's ring mutex for 5 s while 2
#                threads log 1 000 messages/s each: the longest call, the 99.9th percentile
#                of the calls, and how many of those messages arrive once it lets go
# The frozen daemon is bench/ring_holder.cpp: a second daemon-side end of the application's
# channel (the library's exported Logferry_base, attached by the channel's name beside the
# running monitor), which takes the ring's mutex, tells the application to start, holds the
# mutex for 5 s and lets go without detaching. The monitor waits behind it on the same mutex,
# as a stalled daemon would, and drains the ring into the DLT file once it is free, so the
# arrivals are counted exactly as in the other measures. (The tests' peer program is driven
# step by step over a pipe by the test support and is no program for a script.)
# The programs know nothing of the library under ara::log: the script runs unchanged whatever
# the front end does with the messages before they reach the ring.
# Uses the system-wide listener name: run it under `flock /tmp/lf-listener.flock` or in a
# private mount namespace with /dev/shm of its own.
set -euo pipefail

# shellcheck source=e2e_common.sh
source "$(dirname "${BASH_SOURCE[0]}")/e2e_common.sh"
cmake --build "$build" --target ara_lifecycle ring_holder -j"${JOBS:-2}" >/dev/null
app="$build/bench/ara_lifecycle"
holder="$build/bench/ring_holder"

# Messages in the monitor's DLT file(s).
arrived() { "$load" count "$work"/out.dlt* 2>/dev/null || echo 0; }

# Waits until the DLT file holds $1 messages or has not grown for 1 s (5 s while it is still
# empty: the monitor may not have attached yet; 30 s at most).
wait_drained() {
    local want=$1 last=-1 same=0 now
    for _ in $(seq 150); do
        now=$(arrived)
        [ "$now" -ge "$want" ] && return
        if [ "$now" -eq "$last" ]; then
            same=$((same + 1))
            [ "$same" -ge 5 ] && [ "$now" -gt 0 ] && return
            [ "$same" -ge 25 ] && return
        else
            same=0
        fi
        last=$now
        sleep 0.2
    done
}

# Waits until file $1 has a line starting with $2 ($3 seconds at most, or until process $4
# has ended).
wait_line() {
    for _ in $(seq $(($3 * 20))); do
        grep -q "^$2" "$1" 2>/dev/null && return 0
        kill -0 "$4" 2>/dev/null || return 1
        sleep 0.05
    done
    return 1
}

field() { awk -v k="$1" '{for (i = 1; i < NF; i++) if ($i == k) print $(i + 1)}' "$2" | tail -n 1; }

burst() {
    local threads=$1 messages=$2 out="$work/burst.txt" pid
    start_monitor
    "$app" burst "$threads" "$messages" >"$out" &
    pid=$!
    wait_line "$out" burst-done 120 "$pid" || true
    wait_drained $((threads * messages))
    kill -USR1 "$pid" 2>/dev/null || true
    wait "$pid" || true
    wait_drained $((threads * messages))
    stop_monitor
    local sent got
    sent=$(field sent "$out")
    got=$(arrived)
    printf '%-34s sent %7s  arrived %7s  lost %7s  burst %5s ms\n' "burst $threads x $messages" "$sent" "$got" \
        "$((sent - got))" "$(field burst-ms "$out")"
    printf '%-34s before %6s  peak %6s  after drain %6s\n' "  VmRSS (KiB) of that burst" \
        "$(field rss-before-kib "$out")" "$(field rss-peak-kib "$out")" "$(field rss-after-kib "$out")"
}

short_lives() {
    local waves=15 per_wave=10 messages=100 wave i pids sent=0 s
    start_monitor
    local began
    began=$(date +%s.%N)
    for wave in $(seq "$waves"); do
        pids=()
        for i in $(seq "$per_wave"); do
            "$app" short "$messages" >"$work/short-$wave-$i.txt" 2>&1 &
            pids+=($!)
        done
        wait "${pids[@]}" || true
    done
    local wall
    wall=$(awk -v b="$began" -v e="$(date +%s.%N)" 'BEGIN {printf "%.2f", e - b}')
    for wave in $(seq "$waves"); do
        for i in $(seq "$per_wave"); do
            s=$(field sent "$work/short-$wave-$i.txt")
            sent=$((sent + ${s:-0}))
        done
    done
    wait_drained "$sent"
    stop_monitor
    local watchdogs
    watchdogs=$(grep -c "proxy watchdog triggered" "$work/monitor.txt" || true)
    printf '%-34s sent %7s  arrived %7s of %d  wall %6s s  proxy watchdog lines %s\n' \
        "short lives $waves x $per_wave x $messages" "$sent" "$(arrived)" $((waves * per_wave * messages)) "$wall" \
        "$watchdogs"
}

idle() {
    local seconds=10 out="$work/idle.txt"
    start_monitor
    "$app" idle "$seconds" >"$out"
    stop_monitor
    printf '%-34s cpu %7s %% of a core  voluntary switches %7s /s\n' "idle ${seconds} s after CreateLogger" \
        "$(field cpu-percent "$out")" "$(field voluntary-switches-per-s "$out")"
}

frozen() {
    local threads=2 rate=1000 seconds=5 out="$work/frozen.txt" pid
    start_monitor
    "$app" frozen "$threads" "$rate" "$seconds" >"$out" &
    pid=$!
    wait_line "$out" ready 20 "$pid" || true
    "$holder" FRZN "$pid" "$seconds" >"$work/holder.txt" || true
    wait "$pid" || true
    local sent
    sent=$(field sent "$out")
    wait_drained "${sent:-0}"
    stop_monitor
    printf '%-34s sent %7s  arrived %7s  longest call %9s us  p99.9 %9s us\n' \
        "frozen daemon ${seconds} s, $threads x $rate/s" "$sent" "$(arrived)" "$(field longest-us "$out")" \
        "$(field p999-us "$out")"
}

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
burst 4 10000
burst 1 100000
short_lives
idle
frozen
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
