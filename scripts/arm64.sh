#!/usr/bin/env bash
# The 64-bit Arm target: cross-builds the library and the test suite (test programs linked
# statically) with Debian's aarch64 cross compiler, then
#   1. runs the suite under qemu's user mode through CTest (tests that need the kernel to
#      report a robust mutex owner's death skip there: the emulator keeps no robust list);
#   2. runs the whole suite, those tests included, in an emulated arm64 machine
#      (qemu-system-aarch64 -M virt, Debian's arm64 kernel, an initramfs holding the test
#      programs and a small init that runs every test case and prints "ARM64 SUITE: PASS").
# Installs what it needs first. Exits non-zero when anything fails.
#
# Environment: LOGFERRY_JOBS (build and CTest jobs, 2), ARM64_BUILD_DIR (build-arm64),
# ARM64_SMP (processors of the emulated machine, 2), ARM64_VM_TIMEOUT (seconds allowed for the
# emulated machine, 600), ARM64_USER_TIMEOUT (seconds allowed for the user-mode run, 600),
# ARM64_STAGES ("user system": which runs to do; "build" for the cross build alone).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

jobs=${LOGFERRY_JOBS:-2}
build=${ARM64_BUILD_DIR:-build-arm64}
smp=${ARM64_SMP:-2}
vm_timeout=${ARM64_VM_TIMEOUT:-600}
user_timeout=${ARM64_USER_TIMEOUT:-600}
stages=${ARM64_STAGES:-user system}
case "$build" in /*) ;; *) build=$root/$build ;; esac

started=$(date +%s)
phase_start=$started
timings=()
phase_done() {
    local now
    now=$(date +%s)
    timings+=("$1: $((now - phase_start)) s")
    echo "=== $1 took $((now - phase_start)) s ==="
    phase_start=$now
}

echo "=== install ==="
scripts/install-deps.sh g++-aarch64-linux-gnu binutils-aarch64-linux-gnu googletest qemu-user \
    qemu-system-arm debian-installer-12-netboot-arm64 cpio gzip
phase_done install

echo "=== cross build ($build) ==="
# Optimised as the native suite's build, without debug information: the statically linked test
# programs stay small and the build on two cores stays short.
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG" \
    -DLOGFERRY_WERROR=ON > "$build.configure.log" 2>&1 ||
    { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j"$jobs"
# The layouts shared with the daemon are checked by static_asserts in the public headers, so
# a build for the target proves them; their tests run below as well.
phase_done "cross build"

failed=()

if [[ " $stages " == *" user "* ]]; then
    echo "=== user mode: CTest through qemu-aarch64 ==="
    # Left out here, run in the emulated machine only:
    # - Package.InstallAndConsume builds and runs a consumer on the build machine against the
    #   installed library: a check of the native build;
    # - EndToEnd.*, AraExit.*, Monitor.* and Ara_compat.* start other target programs (the daemon peer,
    #   logferry-monitor) with execve, which the build machine's kernel cannot run: qemu's user
    #   mode emulates one process and does not follow execve, and no binfmt_misc handler is
    #   registered;
    # - AraLog.AChildForkedWhileThreadsLog* forks while other threads run, and a child forked
    #   while another emulated thread holds one of qemu's own locks (code translation, memory
    #   map) waits for it forever in user mode; the emulated machine runs it.
    user_mode_excluded='^(Package\.InstallAndConsume.*|EndToEnd\..*|AraExit\..*|Monitor\..*|Ara_compat\..*|AraLog\.AChildForkedWhileThreadsLog.*)$'
    echo "user mode: not run here (they start other target programs, check the native package, or fork while threads run): $user_mode_excluded"
    log=$build.ctest.log
    timeout "$user_timeout" ctest --test-dir "$build" -j"$jobs" --output-on-failure --no-tests=error \
        -E "$user_mode_excluded" > "$log" 2>&1 || failed+=("user mode")
    # CTest's summary: the count, the skipped cases and the failed ones; the full log is $log.
    if grep -q 'tests passed, .* tests failed out of' "$log"; then
        sed -n '/tests passed, .* tests failed out of/,$p' "$log"
    else
        tail -n 20 "$log"
        echo "user mode: no CTest summary (timed out after $user_timeout s?)"
    fi
    if grep -q -E ': Skipped$' "$build/Testing/Temporary/LastTest.log"; then
        echo "user mode: reasons given by the skipped cases:"
        grep -A1 -E ': Skipped$' "$build/Testing/Temporary/LastTest.log" | grep -v -E ': Skipped$|^--$' |
            sort | uniq -c | sed 's/^/  /'
    fi
    phase_done "user-mode run"
fi

if [[ " $stages " == *" system "* ]]; then
    echo "=== system mode: the whole suite in an emulated arm64 machine ==="
    kernel=$(find /usr/lib/debian-installer/images/12/arm64 -path '*/debian-installer/arm64/linux' | head -n 1)
    [ -n "$kernel" ] || { echo "no arm64 kernel in debian-installer-12-netboot-arm64"; exit 1; }
    emulator=$(sed -n 's/^LOGFERRY_QEMU_AARCH64:FILEPATH=//p' "$build/CMakeCache.txt")
    work=$build/arm64-vm
    staging=$work/initramfs
    rm -rf "$work"
    mkdir -p "$staging/suite"

    # The test cases exactly as CTest runs them (name, program, arguments, time limit,
    # environment, working directory), without the user-mode emulator.
    ctest --test-dir "$build" --show-only=json-v1 > "$work/tests.json"
    cmake -DJSON="$work/tests.json" -DOUT="$staging/suite/manifest" -DPROGRAMS="$work/programs" \
        -DEMULATOR="$emulator" -P tests/arm64/make_manifest.cmake

    # Every program and shared library of the build tree keeps its absolute path, so that paths
    # compiled in (the daemon peer, the monitor, run paths) hold inside the machine too. The
    # test programs are static; programs the tests start may be dynamic, so the loader and
    # the C and C++ run-time libraries they need come along from the cross toolchain.
    cross_lib=/usr/aarch64-linux-gnu/lib
    is_target_elf() { aarch64-linux-gnu-readelf -h "$1" 2> /dev/null | grep -q 'Machine: *AArch64'; }
    needed_of() { aarch64-linux-gnu-readelf -d "$1" 2> /dev/null | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }
    stage_elf() {
        mkdir -p "$staging$(dirname "$2")"
        aarch64-linux-gnu-strip --strip-unneeded -o "$staging$2" "$1"
        chmod +x "$staging$2"
    }
    staged=()
    while read -r file; do
        if [ -L "$file" ]; then
            case "$file" in *.so*) mkdir -p "$staging$(dirname "$file")"; cp -P "$file" "$staging$file" ;; esac
        elif is_target_elf "$file"; then
            stage_elf "$file" "$file"
            staged+=("$file")
        fi
    done < <(find "$build" \( -path "$build/googletest" -o -name CMakeFiles -o -path "$work" \) -prune -o \
        \( -type f -perm -u+x -o -type l \) -print)
    while read -r program; do
        [ -z "$program" ] || [ -e "$staging$program" ] || { echo "test program $program was not built"; exit 1; }
    done < "$work/programs"
    queue=("${staged[@]}")
    while [ ${#queue[@]} -gt 0 ]; do
        file=${queue[0]}
        queue=("${queue[@]:1}")
        for lib in $(needed_of "$file"); do
            [ -e "$staging/lib/aarch64-linux-gnu/$lib" ] && continue
            found=$(find "$staging$build" -name "$lib" -print -quit)
            [ -n "$found" ] && continue
            [ -e "$cross_lib/$lib" ] || { echo "$file needs $lib, not found in $cross_lib"; exit 1; }
            mkdir -p "$staging/lib/aarch64-linux-gnu"
            cp -L "$cross_lib/$lib" "$staging/lib/aarch64-linux-gnu/$lib"
            queue+=("$cross_lib/$lib")
        done
    done
    if [ -d "$staging/lib/aarch64-linux-gnu" ]; then
        cp -L "$cross_lib/ld-linux-aarch64.so.1" "$staging/lib/ld-linux-aarch64.so.1"
    fi
    # The source tree (without build trees) at its own path: tests read data files from it.
    mkdir -p "$staging$root"
    git ls-files -z --cached --others --exclude-standard |
        while IFS= read -r -d '' file; do if [ -f "$file" ]; then printf '%s\0' "$file"; fi; done |
        cpio -0 -pdm --quiet "$staging$root"
    # A shell and the usual commands, as on any Linux system (tests may run a command through
    # std::system): busybox from Debian's arm64 package, fetched once with a private apt state
    # for arm64 (the build machine's own apt configuration is left as it is).
    cache=$build/arm64-cache
    busybox_deb=$(find "$cache" -maxdepth 1 -name 'busybox-static_*_arm64.deb' 2> /dev/null | head -n 1 || true)
    if [ -z "$busybox_deb" ]; then
        mkdir -p "$cache/lists/partial" "$cache/apt/archives/partial"
        apt_arm64=(apt-get -q -o APT::Architecture=arm64 -o APT::Architectures::=arm64
            -o Dir::State::Lists="$cache/lists" -o Dir::Cache="$cache/apt" -o Dir::State::status=/dev/null
            -o APT::Sandbox::User=root)
        "${apt_arm64[@]}" update > "$cache/apt.log" 2>&1 || { cat "$cache/apt.log"; exit 1; }
        (cd "$cache" && "${apt_arm64[@]}" download busybox-static >> "$cache/apt.log" 2>&1) ||
            { cat "$cache/apt.log"; exit 1; }
        busybox_deb=$(find "$cache" -maxdepth 1 -name 'busybox-static_*_arm64.deb' | head -n 1)
    fi
    dpkg-deb -x "$busybox_deb" "$work/busybox"
    mkdir -p "$staging/bin"
    cp "$work/busybox/bin/busybox" "$staging/bin/busybox"
    for applet in $("$emulator" "$staging/bin/busybox" --list); do
        [ -e "$staging/bin/$applet" ] || ln -s busybox "$staging/bin/$applet"
    done
    while read -r dir; do
        mkdir -p "$staging$dir"
    done < <(sed -n 's/^cwd //p' "$staging/suite/manifest" | sort -u)
    mv "$staging$build/tests/logferry_arm64_init" "$staging/init"
    (cd "$staging" && find . | LC_ALL=C sort | cpio -o -H newc -R 0:0 --quiet) | gzip -1 > "$work/initramfs.gz"
    echo "initramfs: $(du -h "$work/initramfs.gz" | cut -f1), $(grep -c '^test ' "$staging/suite/manifest") test cases," \
        "kernel $kernel"

    vm_log=$work/console.log
    # No network (-nic none). -no-reboot and panic=-1: a crashed init ends the emulator. The init
    # prints a line per test case, the output of failed ones, and the result line.
    set +e +o pipefail
    timeout "$vm_timeout" qemu-system-aarch64 -M virt -cpu cortex-a57 -smp "$smp" -m 1024 -nographic -no-reboot -nic none \
        -kernel "$kernel" -initrd "$work/initramfs.gz" \
        -append "console=ttyAMA0 quiet panic=-1 rdinit=/init" < /dev/null 2>&1 |
        sed -u 's/\r$//' | tee "$vm_log"
    vm_status=${PIPESTATUS[0]}
    set -e -o pipefail
    if [ "$vm_status" -eq 124 ]; then
        echo "system mode: the emulated machine did not finish within $vm_timeout s (log: $vm_log)"
    fi
    if grep -qx 'ARM64 SUITE: PASS' "$vm_log"; then
        echo "system mode: suite passed"
    else
        failed+=("system mode")
        grep -q -E '^ARM64 SUITE:' "$vm_log" || echo "system mode: no result line (log: $vm_log)"
    fi
    phase_done "system-mode run"
fi

echo "=== timings ==="
printf '  %s\n' "${timings[@]}"
echo "  total: $(($(date +%s) - started)) s"
if [ ${#failed[@]} -gt 0 ]; then
    echo "arm64: FAILED (${failed[*]})"
    exit 1
fi
echo "arm64: all runs passed"
