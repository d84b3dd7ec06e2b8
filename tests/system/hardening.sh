#!/bin/sh
# hardening.sh STAGE SOURCE_DIR FORTIFIED X86: the staged command and libraries are built so that a mistake in them is hard
# to make use of. FORTIFIED and X86 are 1 where the build has the C library's checks and the processor's landing marks.
set -eu
stage=$1 source_dir=$2 fortified=$3 x86=$4
bad=0
wrong() {
    echo "$1" >&2
    bad=1
}

# Dynamic symbols by name, without versions: `symbols FILE NM-OPTION...`
symbols() {
    file=$1
    shift
    nm -D -P "$@" "$file" | sed 's/[@ ].*//'
}
imports() { symbols "$1" --undefined-only; }
is_imported() { imports "$2" | grep -qxE "$1"; }

# What the C library checks under another name: __read_chk for read, __open_2 for open.
checked_names() { imports "$1" | grep -xE '__[a-z0-9]+_(chk|2)' | grep -vx __stack_chk_fail || true; }

check_layout() {
    segments=$(readelf -lW "$1")
    dynamic=$(readelf -dW "$1")
    case $segments in *GNU_RELRO*) ;; *) wrong "$1: no RELRO: its tables of addresses stay writable" ;; esac
    case $dynamic in *BIND_NOW*) ;; *) wrong "$1: no BIND_NOW: RELRO leaves out the table of functions" ;; esac
    case $dynamic in *TEXTREL*) wrong "$1: its code is written to when it is loaded" ;; esac
    case $segments in *'(Position-Independent Executable file)'* | *'DYN (Shared object file)'*) ;; *) wrong "$1: has a fixed place" ;; esac
    ! echo "$segments" | grep -E 'LOAD|GNU_STACK' | grep -q ' RWE ' || wrong "$1: has memory that is writable and code"
}

# Each function that others may jump to begins with the mark that an indirect jump must land on: what a library exports,
# and main.
exported_functions() {
    [ "$1" != "$command" ] || echo main
    nm -D --defined-only "$1" | awk '$2 ~ /[TW]/ { sub("@.*", "", $3); print $3 }'
}

check_landing_marks() {
    symbols "$1" --defined-only | sort >"$work/exported"
    objdump -d --no-show-raw-insn "$1" | awk 'name { if ($0 ~ /endbr/) print name; name = "" }
        /^[0-9a-f]+ <.*>:$/ { name = substr($2, 2, length($2) - 3) }' | sort >"$work/marked"
    exported_functions "$1" | sort >"$work/functions"
    [ -s "$work/functions" ] || wrong "$1: exports no function"
    unmarked=$(comm -23 "$work/functions" "$work/marked" | tr '\n' ' ')
    [ -z "$unmarked" ] || wrong "$1: no landing mark: $unmarked"
}

# Tests make these calls of a library fail by their names; what has a second name must be wrapped by that, too.
check_wrapped() { # library, list of names
    for name in $(checked_names "$1"); do
        plain=${name#__}
        plain=${plain%_*}
        ! grep -qx "$plain" "$2" || grep -qx "$name" "$2" || wrong "$2: $plain without $name"
    done
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
command=$stage/bin/fmon
module=$stage/lib/libfmon.so
for file in "$command" "$module" "$stage"/lib/*.so; do
    check_layout "$file"
    is_imported __stack_chk_fail "$file" || wrong "$file: no stack protector"
    [ "$x86" = 0 ] || check_landing_marks "$file"
done

for file in "$command" "$stage/lib/liborx_base.so" "$stage/lib/liborx_kp_thread.2.so" "$stage/lib/liborx_sensitive_dir.6.so"; do
    is_imported '.*__glibcxx_assert_fail.*' "$file" || wrong "$file: indexes of containers are not checked"
    [ "$fortified" = 0 ] || [ -n "$(checked_names "$file")" ] || wrong "$file: no _FORTIFY_SOURCE"
done
check_wrapped "$stage/lib/liborx_kp_thread.2.so" "$source_dir/tests/testlib/kernel_double/wrapped.txt"
check_wrapped "$stage/lib/liborx_sensitive_dir.6.so" "$source_dir/tests/testlib/container_world/wrapped.txt"

# What is put before the C library's calls in an agent's process must catch the module's.
renamed=$(checked_names "$module" | tr '\n' ' ')
[ -z "$renamed" ] || wrong "$module: calls by other names: $renamed"
for name in read readlink realpath fgets; do
    is_imported "$name" "$module" || wrong "$module: does not call $name"
done
exit $bad
