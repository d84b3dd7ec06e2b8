# Holds includes (the lines of includes.awk) and what CMakeLists.txt files name against the tables of docs/architecture.md,
# which come first. A row of the first table is a layer: its directories stand in the first cell, in the third what it may use: a
# directory, a header, or "everything". A row of the second is an exception: a file, and the headers it may include all the same.
#
# Prints one line a violation: FILE:LINE: what may not be.

BEGIN { FS = "\t" }

FILENAME ~ /architecture\.md$/ {
    if ($0 ~ /^\| *(directory|file) *\|/)
        table = /^\| *directory/ ? "layers" : "exceptions"
    else if ($0 !~ /^\|/)
        table = ""
    else if (table != "" && $0 !~ /^\|-/)
        read_row($0)
    next
}

{
    ++uses
    from = layer_of($1)
    if (from == "") {
        if (!homeless[$1]++)
            print $1 ": is in no layer of docs/architecture.md"
        bad = 1
    } else if ($3 ~ /^</)
        check_language()
    else if (!allowed(from, $1, $3)) {
        print $1 ":" $2 ": " from " may not use " $3
        bad = 1
    }
}

END {
    if (!layers || !uses) {
        print "layers: no table, or nothing to hold against it"
        bad = 1
    }
    exit bad
}

function read_row(line,    cells, i, directory, count, names) {
    split(line, cells, /[ \t]*\|[ \t]*/)
    count = ticked(cells[2], names)
    for (i = 1; i <= count; ++i) {
        directory = names[i]
        if (table == "layers") {
            ++layers
            known[directory] = 1
            if (cells[4] ~ /^everything/)
                all[directory] = 1
            if (cells[4] ~ /no run-time library/)
                bare[directory] = 1
        }
        allow(directory, cells[table == "layers" ? 4 : 3])
    }
}

function allow(who, cell,    i, count, names) {
    count = ticked(cell, names)
    for (i = 1; i <= count; ++i)
        may[who, names[i]] = 1
}

# What stands between backticks in a cell.
function ticked(cell, names,    parts, count, i, found) {
    count = split(cell, parts, "`")
    for (i = 2; i <= count; i += 2)
        names[++found] = parts[i]
    return found + 0
}

# The layer that a file belongs to: the longest directory of the table above it.
function layer_of(file) {
    sub(/[^\/]*$/, "", file)
    while (file != "" && !(file in known))
        sub(/[^\/]*\/$/, "", file)
    return file
}

function allowed(from, file, target,    to) {
    to = layer_of(target)
    return to == from || (from in all) || (from, to) in may || (from, target) in may || (file, target) in may
}

# The C library, and of C++ what is but a header.
function check_language() {
    if ((from in bare) && $3 !~ /^<.*\.h>$|^<c[a-z]*>$|^<(algorithm|atomic|bit|limits|type_traits|utility)>$/) {
        print $1 ":" $2 ": " from " may not use " $3
        bad = 1
    }
}
