#!/bin/sh
# development.sh PACKAGES SOURCE_DIR: programs are built and run with what the Debian packages of that directory bring: the
# manual page's example, linked with the library, by pkg-config and by CMake; the guide's agent, which loads it.
set -eu
packages=$1 source_dir=$2
work=$(mktemp -d)
agent=
trap 'kill $agent 2>/dev/null || true; rm -rf "$work"' EXIT
wrong() {
    echo "$1" >&2
    exit 1
}

# ---- the packages, unpacked ----

root=$work/root
for package in "$packages"/libfmon*.deb; do dpkg -x "$package" "$root"; done
public=$root/usr/lib/$(dpkg-architecture -q DEB_HOST_MULTIARCH)
export PKG_CONFIG_SYSROOT_DIR="$root" PKG_CONFIG_LIBDIR="$public/pkgconfig"
export LD_LIBRARY_PATH="$public:$root/usr/lib/fmon"

# ---- the manual page's example ----

mkdir "$work/watched"
awk '/^\.Sh EXAMPLES/ { wanted = 1 } wanted && /^\.Ed/ { exit } inside { print } wanted && /^\.Bd/ { inside = 1 }' \
    "$source_dir/docs/libfmon.3" | sed -e 's/\\e/\\/g' -e "s|\"/srv\"|\"$work/watched\"|" >"$work/example.c"
grep -q "$work/watched" "$work/example.c" || wrong "no example in libfmon(3)"

# A file is made until the program, which does not say when it watches, has seen one.
sees_files() {
    : >"$work/seen"
    "$1" >"$work/seen" 2>"$work/talk" &
    agent=$!
    tries=0
    until grep -q "create $work/watched/file" "$work/seen"; do
        if ! kill -0 $agent 2>/dev/null || [ $tries = 600 ]; then wrong "$1: $(cat "$work/seen" "$work/talk")"; fi
        tries=$((tries + 1))
        : >"$work/watched/file$tries"
        sleep 0.05
    done
    kill $agent
    wait $agent 2>/dev/null || true
}

# shellcheck disable=SC2046 # options
"${CC:-cc}" -o "$work/by_pkg_config" "$work/example.c" $(pkg-config --cflags --libs libfmon-host)
sees_files "$work/by_pkg_config"

cat >"$work/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(example LANGUAGES C)
find_package(fmon 0.1 REQUIRED)
add_executable(by_cmake example.c)
target_link_libraries(by_cmake fmon::host)
message(STATUS "plug-in: ${FMON_PLUGIN}")
END
{ cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$root/usr" && cmake --build "$work/build"; } >"$work/talk" 2>&1 ||
    wrong "$(cat "$work/talk")"
plug_in=$(sed -n 's/.*plug-in: //p' "$work/talk")
sees_files "$work/build/by_cmake"

# ---- the guide's agent, which is linked with nothing of ours ----

# shellcheck disable=SC2046 # options
"${CC:-cc}" -std=c11 $(pkg-config --cflags libfmon) -rdynamic -pthread -o "$work/agent" \
    "$root/usr/share/doc/libfmon-dev/host-example.c" -ldl
for file in "$plug_in" "$root$(PKG_CONFIG_SYSROOT_DIR='' pkg-config --variable=plugindir libfmon)/libfmon.so"; do
    "$work/agent" "$file" >"$work/seen" 2>"$work/talk" || wrong "$file: $(cat "$work/talk")"
    grep -q '^create.* /.*/file ' "$work/seen" || wrong "$file: $(cat "$work/seen")"
done
