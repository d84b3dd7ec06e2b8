# From the facts of facts.awk: which file of ours includes which, as lines "FROM LINE TO" parted by tabs; what is included
# by <> or is no file of ours comes as "FROM LINE <NAME>". Facts of files come twice: as the first input, to be known, and
# as the second.
#
# A name is looked for beside the file that includes it, then in the directories that our targets have on their paths.

BEGIN {
    FS = OFS = "\t"
    count = split("include/ src/ ./ tests/ tests/kernels/ host/ kprobe/ container/ agent/ output/ cli/", directories, " ")
}

$1 == "file" && NR == FNR { known[$2] = 1 }
$1 == "incl" && NR != FNR { print $2, $3, resolve($2, $4) }

function resolve(from, what,    i, target) {
    if (what ~ /^</)
        return what
    what = substr(what, 2, length(what) - 2)
    target = from
    sub(/[^\/]*$/, "", target)
    target = straight(target what)
    for (i = 1; !(target in known) && i <= count; ++i)
        target = straight((directories[i] == "./" ? "" : directories[i]) what)
    return target in known ? target : "<" what ">"
}

# A path without "x/..".
function straight(path) {
    while (sub(/(^|\/)[^\/.][^\/]*\/\.\.\//, "/", path))
        sub(/^\//, "", path)
    return path
}
