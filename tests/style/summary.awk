# What facts.awk found, summed up for `measure`. Prints the report; a broken limit as a line "LIMIT: …", status 1.

BEGIN {
    FS = "\t"
    max_median = 10
    max_most = 20 # of nine functions of ten
    max_function = 40
    max_file = 450
    max_state = 15
}

$1 == "file" {
    room = room_of($2)
    ++files[room]
    lines[room] += $3
    of_kind($2)
    hold_longest("file", $3, $2)
    file_lengths[++file_count] = $3
    if ($3 > max_file)
        limit($2 " has " $3 " lines")
}

$1 == "func" {
    add_function(room_of($2), $5)
    add_function("all", $5)
    hold_longest("func", $5, $2 ":" $3 " " $4)
    if ($5 > max_function)
        limit($2 ":" $3 ": " $4 " has " $5 " lines")
}

$1 == "class" && $5 > max_state {
    text = sprintf("  %4d  %s:%d %s", $5, $2, $3, $4)
    if ($6 > 0) {
        big_classes = big_classes text "\n"
        limit($2 ":" $3 ": " $4 " has " $5 " members of state")
    } else
        big_records = big_records text "\n"
}

$1 == "odd" { limit($2 ":" $3 ": " $4) }

END {
    print_files()
    print_functions()
    print "\nfiles by length: median " at(file_lengths, file_count, 0.5) ", 90 % up to " at(file_lengths, file_count, 0.9)
    print_longest("file")
    print "\nclasses with more than " max_state " members of state:" (big_classes == "" ? " none" : "")
    printf "%s", big_classes
    print "structures without member functions that have more:" (big_records == "" ? " none" : "")
    printf "%s", big_records
    print "\ncomments, of the lines that are not blank:"
    for (k = 1; k <= 3; ++k) {
        name = substr("sourcesheaderstests  ", 7 * k - 6, 7)
        printf "  %s %5.1f %%\n", name, held[k] ? 100 * comments[k] / held[k] : 0
    }
    printf "%s", limits
    exit limits != ""
}

# The directory that a file is in.
function room_of(path) {
    sub(/\/[^\/]*$/, "", path)
    if (!(path in seen)) {
        seen[path] = 1
        rooms[++room_count] = path
    }
    return path
}

# 1 sources, 2 headers, 3 tests and benches.
function of_kind(path,    k) {
    k = path ~ /^(tests|bench)\// ? 3 : path ~ /\.h$/ ? 2 : 1
    comments[k] += $5
    held[k] += $6
}

function add_function(room, length_of) { lengths[room, ++functions[room]] = length_of }

function limit(what) { limits = limits "LIMIT: " what "\n" }

# The ten longest of a kind, longest first.
function hold_longest(what, value, text,    i) {
    for (i = 10; i > 0 && value > top_value[what, i] + 0; --i) {
        top_value[what, i + 1] = top_value[what, i]
        top_text[what, i + 1] = top_text[what, i]
    }
    top_value[what, i + 1] = value
    top_text[what, i + 1] = text
}

function print_longest(what,    i) {
    for (i = 1; i <= 10 && top_text[what, i] != ""; ++i)
        printf "  %4d  %s\n", top_value[what, i], top_text[what, i]
}

function print_files(    i) {
    printf "%-44s %6s %7s\n", "directory", "files", "lines"
    for (i = 1; i <= room_count; ++i)
        printf "%-44s %6d %7d\n", rooms[i], files[rooms[i]], lines[rooms[i]]
}

function print_functions(    i, room) {
    printf "\n%-44s %6s %7s %7s %7s\n", "functions", "number", "median", "90 %", "longest"
    rooms[room_count + 1] = "all"
    for (i = 1; i <= room_count + 1; ++i)
        if ((room = rooms[i]) in functions)
            print_room(room)
    if (median > max_median)
        limit("the median function has " median " lines")
    if (most > max_most)
        limit("nine of ten functions have up to " most " lines")
    print "longest functions:"
    print_longest("func")
}

function print_room(room,    i, count, sorted) {
    count = functions[room]
    for (i = 1; i <= count; ++i)
        sorted[i] = lengths[room, i]
    median = at(sorted, count, 0.5)
    most = at(sorted, count, 0.9)
    printf "%-44s %6d %7d %7d %7d\n", room, count, median, most, at(sorted, count, 1)
}

# The value below which (or at which) that share of count values lies. Counts them: lengths are small numbers.
function at(values, count, share,    i, number, highest, passed) {
    for (i = 1; i <= count; ++i) {
        ++number[values[i]]
        if (values[i] + 0 > highest)
            highest = values[i] + 0
    }
    for (i = 0; i <= highest; ++i) {
        passed += number[i]
        if (passed > 0 && passed >= share * count)
            return i
    }
    return 0
}
