#!/bin/sh
# security_doc.sh SOURCE_DIR: every test that docs/security.md names exists, in the program that it names.
set -eu
cd "$1"
failed=0
missing() {
    echo "docs/security.md names $1, which does not exist" >&2
    failed=1
}

# The source of the program unit.NAME (of the module), unit.ROOM_NAME or system.NAME.
source_of() {
    for path in "tests/unit/module/$1_test.cpp" "tests/unit/${1%%_*}/${1#*_}_test.cpp" "tests/system/$1_test.cpp" \
        "tests/system/$1.sh" "tests/system/$1"; do
        if [ -e "$path" ]; then
            echo "$path"
            return
        fi
    done
}

# Each line of the page that names a test: the programs, and the cases, which must lie in one of them.
# shellcheck disable=SC2016 # the page's backquotes
named=$(grep -oE '`(unit|system)\.[a-z0-9_]+`|`[A-Z][A-Za-z0-9]*\.[A-Za-z0-9_]+`' docs/security.md | tr -d '`')
for name in $named; do
    case $name in
    unit.* | system.*)
        program=$name
        source=$(source_of "${name#*.}")
        [ -n "$source" ] || missing "$name"
        ;;
    *)
        # shellcheck disable=SC2086 # a path of ours, or none
        grep -qsE "^TEST(_F|_P)?\(${name%%.*}, ${name#*.}\)" $source /dev/null || missing "$program: $name"
        ;;
    esac
done
# The attacks of system.hostile that it names are in that program's table.
# shellcheck disable=SC2016 # the page's backquotes
for attack in $(grep -oE '`system\.hostile`: `[a-z]+`(, `[a-z]+`)*' docs/security.md | grep -oE '`[a-z]+`' | tr -d '`'); do
    grep -q "{\"$attack\", " tests/system/hostile/*.cpp || missing "the attack $attack"
done
[ "$(echo "$named" | wc -l)" -gt 20 ] || missing "more than a few tests"
exit $failed
