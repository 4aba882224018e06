#!/usr/bin/env bash
# Installs the build into a private prefix, checks what the shared object exports, and builds
# and runs a consumer against the installed tree with CMake and with pkg-config.
set -euo pipefail
build=$1
source=$2
work=$3
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" > "$work/install.log"

lib=$(find "$work/prefix" -name 'liblogferry.so.2' | head -n 1)
[ -n "$lib" ] || { echo "liblogferry.so.2 was not installed"; exit 1; }
libdir=$(dirname "$lib")
[ -e "$libdir/libjx_osal.so.2" ] || { echo "libjx_osal.so.2 is not installed beside liblogferry"; exit 1; }
[ -e "$libdir/liblogferry.so" ] || { echo "development link liblogferry.so missing"; exit 1; }
soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "liblogferry.so.2" ] || { echo "unexpected SONAME '$soname'"; exit 1; }
[ -e "$work/prefix/include/logferry/logferry.hpp" ] || { echo "umbrella header missing"; exit 1; }

# Only names of namespaces logferry and ara leave the library.
nm -D --defined-only -C "$lib" | cut -c20- | sort -u > "$work/exports.txt"
[ -s "$work/exports.txt" ] || { echo "no exported symbols"; exit 1; }
if grep -v -E '^(logferry::|ara::|(typeinfo|typeinfo name|vtable|VTT) for (logferry|ara)::)' "$work/exports.txt"; then
    echo "foreign names exported (above)"
    exit 1
fi
# Daemon-side code derives from and type-checks the exported classes: their type
# information and virtual tables must be exported too.
for name in "typeinfo for logferry::Logferry_base" "vtable for logferry::Logferry_client" \
            "typeinfo for logferry::System_lib"; do
    grep -qxF "$name" "$work/exports.txt" || { echo "not exported: $name"; exit 1; }
done
echo "exports: $(wc -l < "$work/exports.txt") names, all in logferry:: or ara::"

# The ara::log library beside it: its SONAME, its headers, and only ara:: names (and the
# receiver thread's notification hooks, which liblogferry references weakly) exported.
ara_lib="$libdir/liblogferry-ara.so.2"
[ -e "$ara_lib" ] || { echo "liblogferry-ara.so.2 was not installed beside liblogferry"; exit 1; }
[ -e "$libdir/liblogferry-ara.so" ] || { echo "development link liblogferry-ara.so missing"; exit 1; }
soname=$(readelf -d "$ara_lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "liblogferry-ara.so.2" ] || { echo "unexpected SONAME '$soname'"; exit 1; }
for header in logging.h logger.h log_stream.h logstream.h common.h; do
    [ -e "$work/prefix/include/ara/log/$header" ] || { echo "ara/log/$header missing"; exit 1; }
done
nm -D --defined-only -C "$ara_lib" | cut -c20- | sort -u > "$work/ara-exports.txt"
if grep -v -E '^(ara::|logferry_hook_)' "$work/ara-exports.txt"; then
    echo "foreign names exported by liblogferry-ara (above)"
    exit 1
fi
grep -qxF "ara::log::InitLogging(ara::log::detail::Text, ara::log::detail::Text, ara::log::LogLevel, ara::log::LogMode, ara::log::detail::Text)" \
    "$work/ara-exports.txt" || { echo "InitLogging not exported"; exit 1; }
echo "ara exports: $(wc -l < "$work/ara-exports.txt") names"

run_clean() {
    env -u LD_LIBRARY_PATH ADAPTIVE_RUNSTATE_DIR=/tmp/logferry-consumer "$@"
}

# CMake package
cmake -S "$source/tests/package/cmake_consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" \
    > "$work/cmake-consumer.log"
cmake --build "$work/cmake-build" > "$work/cmake-build.log"
out=$(run_clean "$work/cmake-build/consumer")
echo "cmake consumer: $out"
[ "${out#consumer ok: }" != "$out" ] || exit 1
case "$out" in *"run-state directory /tmp/logferry-consumer"*) ;; *) echo "run-state directory not taken from the environment"; exit 1 ;; esac
# The ara::log compatibility applications, built unchanged against the installed headers
# (logferry::ara_log), run without a daemon: they end normally and complain about nothing.
for app in sensor_service late_release_app; do
    err=$(run_clean "$work/cmake-build/ara_compat_$app" 2>&1 > /dev/null) || { echo "$app failed: $err"; exit 1; }
    [ -z "$err" ] || { echo "$app complained: $err"; exit 1; }
done
echo "cmake ara::log consumers: ok"

# pkg-config
flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs logferry)
version=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --modversion logferry)
[ "$version" = "2.0.0" ] || { echo "pkg-config version '$version'"; exit 1; }
# shellcheck disable=SC2086
g++ -std=c++14 -Wall -Wextra -Werror "$source/tests/package/consumer.cpp" $flags -Wl,-rpath,"$libdir" \
    -o "$work/pc-consumer"
out=$(run_clean "$work/pc-consumer")
echo "pkg-config consumer: $out"
[ "${out#consumer ok: }" != "$out" ] || exit 1

# The README's ara::log program, exactly as printed there, built with pkg-config (logferry-ara).
sed -n '/^<!-- ara-log-example -->$/,/^```$/p' "$source/README.md" | sed '1,2d;$d' > "$work/readme_example.cpp"
[ -s "$work/readme_example.cpp" ] || { echo "no ara::log program found in the README"; exit 1; }
flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs logferry-ara)
version=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --modversion logferry-ara)
[ "$version" = "2.0.0" ] || { echo "pkg-config logferry-ara version '$version'"; exit 1; }
# shellcheck disable=SC2086
g++ -std=c++14 -Wall -Wextra -Werror "$work/readme_example.cpp" $flags -Wl,-rpath,"$libdir" -o "$work/readme-example"
err=$(run_clean "$work/readme-example" 2>&1 > /dev/null) || { echo "the README's program failed: $err"; exit 1; }
[ -z "$err" ] || { echo "the README's program complained: $err"; exit 1; }
echo "pkg-config ara::log consumer (the README's program): ok"
rm -rf "$work"
echo "package test passed"
