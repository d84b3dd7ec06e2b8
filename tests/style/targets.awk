# What a directory's CMakeLists.txt takes of other directories, as the lines of includes.awk: "FROM LINE TO". A target NAME or
# NAME_objects is that of a directory of its name (fmon_objects that of src/), and sources are named from the checkout's root.

BEGIN { OFS = "\t" }

{ sub(/#.*/, "") }

{
    while (match($0, /\$\{PROJECT_SOURCE_DIR\}\/[A-Za-z0-9_\/.]+/)) {
        used(substr($0, RSTART + 22, RLENGTH - 22))
        $0 = substr($0, 1, RSTART - 1) " " substr($0, RSTART + RLENGTH)
    }
    while (match($0, /[a-z_]+_objects/)) {
        used(directory_of(substr($0, RSTART, RLENGTH - 8)) "/")
        $0 = substr($0, 1, RSTART - 1) " " substr($0, RSTART + RLENGTH)
    }
}

function directory_of(name) { return name == "fmon" ? "src" : name }

# A source goes by its header.
function used(what) {
    sub(/\.(cpp|c)$/, ".h", what)
    if (what !~ /\.h$|\/$/)
        what = what "/"
    print FILENAME, FNR, what
}
