#!/bin/sh
# host_exports.sh SOURCE_DIR LIBORX_BASE LIBHULBASE: headers, export lists and libraries must name the same symbols.
set -eu
source_dir=$1 base=$2 hulbase=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# What comes before a parenthesis in a header without its comments, and the two tables.
declared() {
    for header in orx_base orx_event_loop orx_autolog orx_host watch_map; do
        ${CC:-cc} -E -P "$source_dir/include/$header.h"
    done | grep -oE '[A-Za-z_0-9]+\(' | tr -d '(' | grep -vxE '__.*|format|cJSON_AddItemToObject'
    echo error_output_level
    echo watch_map
    echo uname # in the place of the C library's
}
listed() { sed -n 's/^ *\([A-Za-z_0-9]*\);$/\1/p' "$1"; }
exported() { nm -D --defined-only "$1" | awk '{ print $NF }'; }

compare() { # what, then two files
    sort -u "$2" >"$2.sorted"
    sort -u "$3" >"$3.sorted"
    [ -s "$2.sorted" ]
    diff -u "$2.sorted" "$3.sorted" || { echo "$1 differ" >&2; exit 1; }
}

declared >"$work/declared"
listed "$source_dir/host/orx_base.map" >"$work/listed"
exported "$base" >"$work/exported"
compare "headers and orx_base.map" "$work/declared" "$work/listed"
compare "orx_base.map and liborx_base.so" "$work/listed" "$work/exported"

echo GetAgentType >"$work/agent"
exported "$hulbase" >"$work/hulbase"
compare "the entry and libhulbase.so" "$work/agent" "$work/hulbase"

# Plug-ins find cJSON_AddItemToObject through the base library, so that one must not lose libcjson as unneeded.
readelf -d "$base" | grep -q 'NEEDED.*libcjson' || { echo "liborx_base.so does not need libcjson" >&2; exit 1; }
