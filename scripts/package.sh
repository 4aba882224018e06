#!/usr/bin/env bash
# Builds the Debian packages and uses them as a user would. In order: installs what it needs;
# builds a Release tree with Debian's hardening flags, configured without an install prefix (the
# packages are laid out under /usr all the same); checks the manual page renders without
# warnings; "cpack -G DEB" makes liblogferry2, liblogferry-dev and logferry-tools, whose
# contents, versions and dependencies are checked; lintian must report no error; the tree
# configured again with the prefix /usr makes the same packages; "apt-get install ./*.deb";
# "systemd-analyze verify" on the installed unit, judging only what concerns it (the machine's
# other units, such as Debian's dlt-daemon.service, may report their own findings); the
# installed monitor ends with the status on which its unit is not restarted when another DLT
# daemon (Debian's dlt-daemon) serves the DLT port; the application in
# tests/package/log_consumer.cpp (free functions) and the ara::log application in
# tests/package/ara_consumer.cpp are built against the installed files with CMake and with
# pkg-config and all four run under the installed logferry-monitor (private run-state
# directory), which must show their messages. Finally, also on failure, the packages are purged and
# anything the run added to the system (user, group, run-state directory) is removed again.
set -euo pipefail
cd "$(dirname "$0")/.."
# dlt-daemon: another DLT daemon on the machine, as users have it (its unit and its port).
scripts/install-deps.sh dpkg-dev fakeroot file lintian groff-base man-db systemd dlt-daemon iproute2

jobs=${LOGFERRY_JOBS:-2}
build="build-package"
packages=(liblogferry2 liblogferry-dev logferry-tools)
version=$(scripts/version.sh)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libdir=/usr/lib/$multiarch
export DEBIAN_FRONTEND=noninteractive
apt_get=(apt-get -o DPkg::Lock::Timeout=600 -y -qq)
[ "$(id -u)" -eq 0 ] || apt_get=(sudo "${apt_get[@]}")
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
fail() {
    echo "package: $*" >&2
    exit 1
}
# shellcheck source=scripts/wait-for-line.sh
. scripts/wait-for-line.sh

# ---------------------------------------------------------------------------------------
echo "=== building ($build, Release, no install prefix given) ==="
eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
rm -rf "$build"
# No CMAKE_INSTALL_PREFIX: the default /usr/local must give the same packages as /usr (below).
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DLOGFERRY_BUILD_TESTS=OFF \
    -DLOGFERRY_WERROR=ON > "$build.configure.log" 2>&1 || { cat "$build.configure.log"; exit 1; }
grep -qx 'CMAKE_INSTALL_PREFIX:PATH=/usr/local' "$build/CMakeCache.txt" || fail "the build's prefix is not the default"
cmake --build "$build" -j"$jobs"

echo "=== manual page ==="
warnings=$(groff -man -Tutf8 -ww -z docs/logferry-monitor.1 2>&1)
[ -z "$warnings" ] || fail "the manual page renders with warnings: $warnings"
MANWIDTH=80 man -l "$build/logferry-monitor.1.gz" 2>&1 | col -b > "$build/logferry-monitor.txt"
# Every option the program's --help names, and those of the service, are described.
mapfile -t help_options < <("$build/daemon/logferry-monitor" --help | grep -oE -- '--[a-z][a-z-]*' | sort -u)
[ ${#help_options[@]} -ge 5 ] || fail "no options in logferry-monitor --help"
for option in "${help_options[@]}" --quiet --ecu --dlt-file --dlt-file-limit --dlt-port --dlt-bind --app-file-dir \
    ADAPTIVE_RUNSTATE_DIR "EXIT STATUS" SIGTERM; do
    grep -qE -- "(^| )$option( |=|,|$)" "$build/logferry-monitor.txt" ||
        fail "the manual page does not describe $option"
done
echo "renders without warnings, describes every option (${help_options[*]} and the service's)"

echo "=== cpack -G DEB ==="
(cd "$build" && cpack -G DEB > cpack.log 2>&1) || { cat "$build/cpack.log"; exit 1; }
debs=()
for p in "${packages[@]}"; do
    deb=$build/${p}_${version}_$(dpkg --print-architecture).deb
    [ -f "$deb" ] || fail "$deb was not made"
    debs+=("$deb")
done
# The package's field $2 must match the extended regular expression $3.
field_matches() {
    local value
    value=$(dpkg-deb -f "$1" "$2")
    echo "$value" | grep -qE "$3" || fail "$(basename "$1"): $2 is '$value', expected /$3/"
}
# The package must hold every listed path (regular file or link).
holds() {
    local deb=$1 listing path
    shift
    listing=$(dpkg-deb -c "$deb" | awk '{print $6}')
    for path in "$@"; do
        grep -qxF "./${path#/}" <<< "$listing" || fail "$(basename "$deb") does not hold $path"
    done
}
field_matches "${debs[0]}" Version "^${version//./\\.}$"
field_matches "${debs[0]}" Section '^libs$'
field_matches "${debs[0]}" Depends 'libc6 \(>= [0-9.]+\)'
field_matches "${debs[1]}" Depends "^liblogferry2 \(= ${version//./\\.}\)$"
field_matches "${debs[1]}" Section '^libdevel$'
field_matches "${debs[2]}" Depends "liblogferry2 \(= ${version//./\\.}\)"
holds "${debs[0]}" "$libdir/liblogferry.so.2" "$libdir/libjx_osal.so.2" /usr/share/doc/liblogferry2/copyright \
    /usr/share/doc/liblogferry2/changelog.gz
holds "${debs[1]}" "$libdir/liblogferry.so" /usr/include/logferry/logferry.hpp \
    "$libdir/cmake/logferry/logferryConfig.cmake" "$libdir/pkgconfig/logferry.pc"
holds "${debs[2]}" /usr/bin/logferry-monitor /usr/lib/systemd/system/logferry-monitor.service \
    /usr/lib/sysusers.d/logferry.conf /usr/lib/tmpfiles.d/logferry.conf /usr/share/man/man1/logferry-monitor.1.gz
# Libraries only in the runtime package; their development links only in the development one.
if dpkg-deb -c "${debs[1]}" | grep -E '\.so\.[0-9]' | grep -v -- '-> '; then fail "versioned libraries in liblogferry-dev"; fi
if dpkg-deb -c "${debs[0]}" | awk '{print $6}' | grep -E '\.so$'; then fail "development links in liblogferry2"; fi
# Every shared object of the runtime package is announced in its shlibs file with its SONAME.
work=$(mktemp -d /tmp/logferry-package.XXXXXX)
dpkg-deb -e "${debs[0]}" "$work/control"
grep -q "^activate-noawait ldconfig$" "$work/control/triggers" || fail "no ldconfig trigger in liblogferry2"
dpkg-deb -x "${debs[0]}" "$work/runtime"
for lib in "$work/runtime$libdir"/*.so.*.*; do
    soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
    name=${soname%.so.*}
    grep -qxF "$name ${soname##*.so.} liblogferry2 (>= $version)" "$work/control/shlibs" ||
        fail "shlibs of liblogferry2 lacks $soname"
    [ -L "$work/runtime$libdir/$soname" ] || fail "no link $soname"
done
echo "three packages, version $version: contents, dependencies, shlibs and trigger as expected"

echo "=== lintian ==="
lintian --fail-on error "${debs[@]}" 2>&1 | tee "$build/lintian.log" ||
    fail "lintian reports errors"
echo "no errors (warnings above are listed in docs/packaging.md)"

echo "=== the same packages from a build for the prefix /usr ==="
# What the README once asked for: only the prefix differs, nothing is rebuilt, and every
# package must come out with the same control fields and the same files (modes, owners, sizes).
# CMake writes its export files for /usr with an extra block for links such as /lib -> /usr/lib
# (logferryConfig.cmake includes the targets through their real directory instead, checked
# below), so the sizes of those two files, and the installed size they add up to, are left out.
cmake -S . -B "$build" -DCMAKE_INSTALL_PREFIX=/usr > "$build.usr.configure.log" 2>&1 ||
    { cat "$build.usr.configure.log"; exit 1; }
(cd "$build" && cpack -G DEB -B "$PWD/usr-prefix" > cpack-usr.log 2>&1) || { cat "$build/cpack-usr.log"; exit 1; }
contents() {
    dpkg-deb -f "$1" | grep -v '^Installed-Size: '
    dpkg-deb -c "$1" | awk '{ if ($6 ~ /cmake\/logferry\/logferry(Config|Targets)\.cmake$/) $3 = "-"; print $1, $2, $3, $6, $7, $8 }'
}
for deb in "${debs[@]}"; do
    other=$build/usr-prefix/$(basename "$deb")
    [ -f "$other" ] || fail "$other was not made"
    difference=$(diff <(contents "$deb") <(contents "$other")) ||
        fail "$(basename "$deb") differs between the default prefix and /usr: $difference"
done
echo "same control fields and files as from the default prefix"

# ---------------------------------------------------------------------------------------
# From here on the system is changed: undo it on every way out.
had_group=$(getent group logferry || true)
had_user=$(getent passwd logferry || true)
had_runstate=; [ ! -d /run/adaptive ] || had_runstate=yes
monitor_pid=
dlt_pid=
cleanup() {
    local status=$?
    if [ -n "$dlt_pid" ] && kill -0 "$dlt_pid" 2> /dev/null; then
        kill -TERM "$dlt_pid" 2> /dev/null || true
        wait "$dlt_pid" 2> /dev/null || true
    fi
    if [ -n "$monitor_pid" ] && kill -0 "$monitor_pid" 2> /dev/null; then
        kill -TERM "$monitor_pid" 2> /dev/null || true
        wait "$monitor_pid" 2> /dev/null || true
    fi
    echo "=== purging the packages ==="
    "${apt_get[@]}" purge "${packages[@]}" > "$build/purge.log" 2>&1 || { cat "$build/purge.log"; status=1; }
    [ -n "$had_user" ] || "${sudo_cmd[@]}" userdel logferry 2> /dev/null || true
    [ -n "$had_group" ] || "${sudo_cmd[@]}" groupdel logferry 2> /dev/null || true
    [ -n "$had_runstate" ] || "${sudo_cmd[@]}" rm -rf /run/adaptive
    local left
    left=$(ls -d /usr/include/logferry "$libdir"/liblogferry* "$libdir"/libjx_osal* "$libdir/cmake/logferry" \
        /usr/bin/logferry-monitor /usr/lib/systemd/system/logferry-monitor.service 2> /dev/null || true)
    if [ -n "$left" ]; then
        echo "package: left installed: $left" >&2
        status=1
    fi
    rm -rf "$work"
    flock -u 9 2> /dev/null || true
    [ "$status" -eq 0 ] && echo "purged: nothing of the packages remains"
    exit "$status"
}
trap cleanup EXIT

# The listener list is system-wide, and while the packages are installed the run-state
# directory /run/adaptive/ara_DLT exists: hold the lock every run that uses them takes until
# the packages are purged again.
exec 9> /tmp/lf-listener.flock
flock 9

echo "=== apt-get install ./*.deb ==="
for p in "${packages[@]}"; do
    ! dpkg -s "$p" > /dev/null 2>&1 || "${apt_get[@]}" purge "$p" > /dev/null
done
"${apt_get[@]}" install "${debs[@]/#/./}" > "$build/install.log" 2>&1 || { cat "$build/install.log"; exit 1; }
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Package} ${Version} ${db:Status-Status}\n' "$p"
done
[ "$(getent group logferry | cut -d: -f3)" = 1051 ] || fail "the group logferry is not gid 1051"
getent passwd logferry > /dev/null || fail "the user logferry was not created"
[ "$(stat -c '%a %G' /run/adaptive/ara_DLT)" = "2770 logferry" ] || fail "run-state directory: $(stat -c '%a %G' /run/adaptive/ara_DLT)"

echo "=== systemd-analyze verify ==="
unit=/usr/lib/systemd/system/logferry-monitor.service
# verify also loads other units of the machine and prints their findings (Debian's
# dlt-daemon.service: "Special user nobody configured"). A line that starts with another unit's
# name or file is about that unit. findings_of UNIT_FILE OUTPUT: the lines of OUTPUT about that
# unit, and every line that names no unit.
unit_pattern='^(/[^:]*/)?[^/: ]+\.(service|socket|target|mount|automount|swap|path|timer|slice|scope|device)(:[0-9]+)?: '
findings_of() {
    local name
    name=$(basename "$1")
    grep -vE "$unit_pattern" <<< "$2" | grep . || true
    grep -E "$unit_pattern" <<< "$2" | grep -E "^(/[^:]*/)?${name//./\\.}(:[0-9]+)?: " || true
}
# Its exit status also counts other units' errors (--recursive-errors=no would pass over a
# dependency that does not exist): only the lines decide.
verify=$(systemd-analyze verify --man=no "$unit" 2>&1 || true)
others=$(grep -E "$unit_pattern" <<< "$verify" | grep -vE "^(/[^:]*/)?logferry-monitor\.service(:[0-9]+)?: " || true)
[ -z "$others" ] || echo "findings about other units, not judged here: $others"
ours=$(findings_of "$unit" "$verify")
[ -z "$ours" ] || fail "systemd-analyze verify: $ours"
# The check must be able to fail offline: a unit with an unknown key and a missing dependency is
# reported, and a finding about another unit verified beside it is not counted against ours.
sed 's/^UMask=/NoSuchKey=1\nUMask=/; s/^\[Unit\]$/[Unit]\nRequires=logferry-no-such.service/' "$unit" \
    > "$work/logferry-broken.service"
sed 's/^UMask=/OtherKey=1\nUMask=/' "$unit" > "$work/logferry-other.service"
verify=$(systemd-analyze verify --man=no "$work/logferry-broken.service" "$work/logferry-other.service" 2>&1 || true)
ours=$(findings_of "$work/logferry-broken.service" "$verify")
grep -q "Unknown key 'NoSuchKey'" <<< "$ours" || fail "systemd-analyze verify does not report an unknown key: $verify"
grep -q "Unit logferry-no-such.service not found" <<< "$ours" ||
    fail "systemd-analyze verify does not report a missing dependency: $verify"
! grep -q "OtherKey" <<< "$ours" || fail "a finding about another unit counts against ours: $ours"
echo "$unit: no findings (directives, the programs it runs, its dependencies)"

echo "=== the monitor as the service runs it ==="
# User and group logferry, umask 0007, the run-state directory the package made: the lock
# file and the listener segment must come out rw-rw---- for the group, and go at the stop.
lock=/run/adaptive/ara_DLT/logferry-daemon-listener.lock
setpriv --reuid=logferry --regid=logferry --init-groups env ADAPTIVE_RUNSTATE_DIR=/run/adaptive \
    sh -c 'umask 0007; exec /usr/bin/logferry-monitor' > "$work/service.out" 2>&1 9>&- &
monitor_pid=$!
wait_for_line "$work/service.out" "^-- listening +lock=$lock$" 50 || fail "$(cat "$work/service.out")"
for path in "$lock" /dev/shm/logferry-daemon-listener; do
    owner=$(stat -c '%a %U %G' "$path")
    [ "$owner" = "660 logferry logferry" ] || fail "$path: $owner, expected 660 logferry logferry"
    echo "$path: $owner"
done
kill -TERM "$monitor_pid"
wait "$monitor_pid" || fail "the monitor ended with status $?"
monitor_pid=
if [ -e "$lock" ] || [ -e /dev/shm/logferry-daemon-listener ]; then
    fail "lock file or listener segment left behind"
fi

echo "=== another DLT daemon serves the DLT port ==="
# Debian's dlt-daemon on a free port (its own directory for its pipes): the installed monitor,
# started with that port as the unit starts it, must end at once with the status on which the
# unit does not restart it, and say why.
prevent=$(sed -n 's/^RestartPreventExitStatus=//p' "$unit")
[ -n "$prevent" ] || fail "the unit names no exit status that prevents a restart"
mkdir "$work/dlt"
for _ in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 20000))
    ! ss -Htln "sport = :$port" | grep -q . || continue
    dlt-daemon -t "$work/dlt" -p "$port" > "$work/dlt-daemon.out" 2>&1 9>&- &
    dlt_pid=$!
    for ((i = 0; i < 50; i++)); do
        ss -Htlnp "sport = :$port" | grep -q "pid=$dlt_pid," && break
        kill -0 "$dlt_pid" 2> /dev/null || break
        sleep 0.1
    done
    ss -Htlnp "sport = :$port" | grep -q "pid=$dlt_pid," && break
    kill -TERM "$dlt_pid" 2> /dev/null || true
    wait "$dlt_pid" 2> /dev/null || true
    dlt_pid=
done
[ -n "$dlt_pid" ] || fail "dlt-daemon did not come up: $(cat "$work/dlt-daemon.out")"
status=0
setpriv --reuid=logferry --regid=logferry --init-groups env ADAPTIVE_RUNSTATE_DIR=/run/adaptive \
    timeout 10 /usr/bin/logferry-monitor --quiet --dlt-port "$port" > "$work/taken.out" 2> "$work/taken.err" 9>&- ||
    status=$?
kill -TERM "$dlt_pid"
wait "$dlt_pid" 2> /dev/null || true
dlt_pid=
[ "$status" = "$prevent" ] || fail "the monitor ended with status $status, not $prevent: $(cat "$work/taken.err")"
grep -qx "logferry-monitor: the DLT port $port on 127.0.0.1 is taken, by another DLT daemon (such as dlt-daemon) or another program; stop it or give this one another --dlt-port" \
    "$work/taken.err" || fail "the monitor's message: $(cat "$work/taken.err")"
[ ! -e "$lock" ] || fail "the monitor left its lock file behind"
echo "dlt-daemon on port $port: the monitor ended with status $status (no restart): $(cat "$work/taken.err")"

# ---------------------------------------------------------------------------------------
echo "=== applications against the installed files, under the installed monitor ==="
cmake -S tests/package/cmake_consumer -B "$work/cmake" \
    > "$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; exit 1; }
cmake --build "$work/cmake" > "$work/cmake-build.log" 2>&1 || { cat "$work/cmake-build.log"; exit 1; }
grep -q "logferry_DIR:PATH=$libdir/cmake/logferry" "$work/cmake/CMakeCache.txt" ||
    fail "CMake did not find the installed package"
# Found through the link /lib -> /usr/lib of a merged /usr, the package still names /usr/include
# (with the prefix one level off it would name /include, which CMake refuses as missing).
if [ "$(realpath /lib)" = /usr/lib ]; then
    cmake -S tests/package/cmake_consumer -B "$work/cmake-lib" -Dlogferry_DIR="/lib/$multiarch/cmake/logferry" \
        > "$work/cmake-lib.log" 2>&1 || fail "the package found through /lib: $(cat "$work/cmake-lib.log")"
fi
[ "$(pkg-config --modversion logferry)" = "$version" ] || fail "pkg-config version $(pkg-config --modversion logferry)"
# shellcheck disable=SC2046
g++ -std=c++14 -Wall -Wextra -Werror tests/package/log_consumer.cpp $(pkg-config --cflags --libs logferry) \
    -o "$work/pc_log_consumer"
# shellcheck disable=SC2046
g++ -std=c++14 -Wall -Wextra -Werror tests/package/ara_consumer.cpp $(pkg-config --cflags --libs logferry-ara) \
    -o "$work/pc_ara_consumer"
apps=("$work/cmake/log_consumer PKGC" "$work/pc_log_consumer PKGP" "$work/cmake/ara_consumer ARAC"
    "$work/pc_ara_consumer ARAP")
for app in "${apps[@]}"; do
    resolved=$(ldd "${app%% *}" | sed -n 's/^\s*liblogferry\.so\.2 => \(\S*\).*/\1/p')
    if [ -z "$resolved" ] || [ "$(realpath "$resolved")" != "$(realpath "$libdir/liblogferry.so.2")" ]; then
        fail "${app%% *} does not use the installed library (liblogferry.so.2 => '$resolved')"
    fi
done

mkdir -p "$work/run/ara_DLT"
export ADAPTIVE_RUNSTATE_DIR=$work/run
# Polls the monitor's output for a line matching $1 for up to $2 tenths of a second.
wait_for() { wait_for_line "$work/monitor.out" "$1" "$2" || fail "the monitor did not show it"; }
/usr/bin/logferry-monitor --level MAIN=debug > "$work/monitor.out" 2> "$work/monitor.err" 9>&- &
monitor_pid=$!
wait_for '^-- listening' 50
for app in "${apps[@]}"; do
    id=${app##* }
    # shellcheck disable=SC2086
    env -u LD_LIBRARY_PATH ${app% *} "$id" 9>&-
    wait_for "^-- detach +$id " 100
    wait_for "^ +[0-9.]+ $id +MAIN +info +\"hello from (the installed library|ara::log)\" 42$" 10
done
kill -TERM "$monitor_pid"
wait "$monitor_pid" || fail "the monitor ended with status $?"
monitor_pid=
cat "$work/monitor.out"
[ ! -s "$work/monitor.err" ] || fail "the monitor's diagnostics: $(cat "$work/monitor.err")"
echo "package test passed"
