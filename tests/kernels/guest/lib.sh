# shellcheck shell=sh
# What the guest's scripts share. In the environment: BUILD and STAGE, the build directory and the installation tree (their
# programs and those of tests/kernels/ are on PATH), TMPDIR, an empty tmpfs, and LIMIT.

# result NAME ok|FAIL|SKIP [WORDS]: one check's outcome.
result() { echo "RESULT $*"; }

# run_gtest NAME PROGRAM [ARGUMENTS]: all its cases as one result; what failed is shown before. They have 240 s, or
# gtest_limit seconds.
run_gtest() {
    label=$1
    shift
    seconds=${gtest_limit:-240}
    timeout -s KILL "$seconds" "$@" >/run/gtest.out 2>&1
    status=$?
    passed=$(grep -c '^\[       OK \]' /run/gtest.out)
    # Each skipped or failed case is named twice, the second time in the summary, without its time.
    skipped=$(grep -c '^\[  SKIPPED \] .* ms)' /run/gtest.out)
    if [ $status != 0 ] && [ $status != 77 ]; then # 77: some were skipped, none failed
        grep -vE '^\[ +(OK|RUN) ' /run/gtest.out | tail -n 60
        case $status in 137) why="killed after $seconds s" ;; *) why="status $status" ;; esac
        result "$label" FAIL "$why:" "$(sed -n 's/^\[  FAILED  \] \([^ ,]*\)$/\1/p' /run/gtest.out | sort -u | tr '\n' ' ')"
    elif [ "$passed" = 0 ]; then
        result "$label" SKIP "$skipped cases: $(grep -m 1 -i 'skip' /run/gtest.out)"
    else
        [ "$skipped" = 0 ] || grep -A 2 'Skipped$' /run/gtest.out
        took=$(sed -n 's/.* ran\. (\([0-9]*\) ms total)$/\1/p' /run/gtest.out)
        result "$label" ok "$passed passed, $skipped skipped, $took ms"
    fi
}

# await SECONDS COMMAND: until the command succeeds.
await() {
    tries=$(($1 * 10))
    shift
    until "$@"; do
        tries=$((tries - 1))
        [ $tries -gt 0 ] || return 1
        usleep 100000
    done
}

# load_module NAME: a file system that this kernel has as a module; true where it is built in.
load_module() {
    [ -e "/lib/modules/$(uname -r)/modules.dep" ] || depmod 2>/dev/null
    modprobe "$1" 2>/dev/null || grep -qw "$1" /proc/filesystems
}

# tests_of KIND: the names, without "KIND.", of the build's tests that tests=PATTERN on the kernel's command line means.
tests_of() {
    sed -n "s/^$1\\.//p" /etc/tests | while read -r name; do
        # shellcheck disable=SC2154,SC2254 # the kernel's command line sets it, and it is a pattern
        case $name in ${tests:-*}) echo "$name" ;; esac
    done
}

# start_watch ARGUMENTS: starts fmon watch, as $watch, with its output in $out and $err; false: it ended, or did not get
# everything in place.
# shellcheck disable=SC2154 # the script says where: $out and $err
start_watch() {
    : >"$out" # not only when the command gets to run: what stands there from an earlier one is not this one's
    fmon watch "$@" >"$out" 2>"$err" &
    watch=$!
    tries=600
    until grep -q '"established"' "$out"; do
        tries=$((tries - 1))
        if [ $tries = 0 ] || ! kill -0 $watch 2>/dev/null; then return 1; fi
        usleep 100000
    done
}

# losses: what the watch reported of losses.
# shellcheck disable=SC2154 # $err, as above
losses() { grep -E ' (was|were) lost|no longer known|overflow' "$err"; }

# use_inotify DIRECTORY...: another program that watches these, as $user; it is ready when this returns.
use_inotify() {
    : >/run/user.out
    inotify_user "$@" >/run/user.out 2>&1 &
    # shellcheck disable=SC2034 # who calls ends it
    user=$!
    await 60 grep -q ready /run/user.out
}

# need_known_release NAME: ends the script with a SKIP where the monitor does not take the kernel's release for system-wide
# events.
need_known_release() {
    uname -r | grep -qE '^[0-9]+\.[0-9]+\.[0-9]+-[0-9]' && return
    result "$1" SKIP "the monitor does not understand the release $(uname -r)"
    exit
}
