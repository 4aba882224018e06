#!/usr/bin/env bash
# Installs what building, testing and the demo need, from Debian's packages, when missing.
set -euo pipefail
packages=(cmake g++ make pkg-config libgtest-dev libgmock-dev libbenchmark-dev binutils)
# The DLT tools read back what the daemon side writes and sends (tests only).
packages+=(dlt-tools)
# Debian's DLT daemon, as the DLT gateway in front of two monitors (tests only).
packages+=(dlt-daemon)
packages+=("$@")
missing=()
for p in "${packages[@]}"; do
    dpkg -s "$p" > /dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    sudo_cmd=()
    [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update -qq
    "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
    # The tests start dlt-daemon themselves; the package's own service is not wanted (it would
    # hold port 3490 and /tmp/dlt).
    if [[ " ${missing[*]} " == *" dlt-daemon "* ]] && [ -d /run/systemd/system ]; then
        "${sudo_cmd[@]}" systemctl disable --now dlt-daemon.service > /dev/null 2>&1 || true
    fi
fi
