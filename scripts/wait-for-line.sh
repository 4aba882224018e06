# shellcheck shell=bash
# Sourced by the scripts that watch logferry-monitor's output.
# wait_for_line FILE PATTERN TENTHS: polls FILE for a line matching the extended regular
# expression PATTERN for up to TENTHS tenths of a second; says so on stderr and fails when none
# came.
wait_for_line() {
    local i
    for ((i = 0; i < $3; i++)); do
        grep -qE -- "$2" "$1" 2> /dev/null && return 0
        sleep 0.1
    done
    echo "no line /$2/ in $1" >&2
    return 1
}
