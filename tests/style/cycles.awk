# From the lines of includes.awk ("FROM LINE TO"): each circle of files that include one another, once, as a line.

BEGIN { FS = "\t" }

$3 !~ /^</ { targets[$1] = targets[$1] $3 "\n" }

END {
    for (file in targets)
        if (!(file in done))
            visit(file, "")
}

# way: the files that led here, each before a blank.
function visit(file, way,    i, count, list) {
    if (index(" " way, " " file " ")) {
        print substr(way, index(" " way, " " file " ")) file
        return
    }
    if (file in done)
        return
    count = split(targets[file], list, "\n")
    for (i = 1; i < count; ++i)
        visit(list[i], way file " ")
    done[file] = 1
}
