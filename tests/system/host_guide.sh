#!/bin/sh
# host_guide.sh SOURCE_DIR LIBFMON: holds docs/host-guide.md against the example and against the module's imports.
set -eu
source_dir=$1 library=$2
guide=$source_dir/docs/host-guide.md
failed=0

listing=$(mktemp)
trap 'rm -f "$listing"' EXIT
awk '/^<!-- host-example\.c -->$/ { marked = 1; next }
     marked && /^```c$/ { copying = 1; next }
     copying && /^```$/ { exit }
     copying' "$guide" >"$listing"
if ! diff -u "$source_dir/docs/host-example.c" "$listing"; then
    echo "the listing in host-guide.md is not docs/host-example.c" >&2
    failed=1
fi

# What of the host's exports the module imports; the C library's functions look alike where a sanitizer brings its own.
imports=$(nm -D --undefined-only "$library" | awk '{ print $NF }' |
    grep -xE "$(sed -n 's/^ *\([A-Za-z_0-9]*\);$/\1/p' "$source_dir/host/orx_base.map" | paste -sd '|')")
[ -n "$imports" ]
for name in $imports; do
    if ! grep -q "\`$name" "$guide"; then
        echo "host-guide.md does not name $name, which libfmon.so imports" >&2
        failed=1
    fi
done
exit $failed
