# fish completion for fmon(1)
#
# The build puts the verbs, their options and what completes the values in the place of the line that says so; that code
# calls the functions below.

function __fmon_needs_verb
    test (count (commandline -opc)) -lt 2
end

function __fmon_has_verb
    set -l words (commandline -opc)
    test (count $words) -ge 2; and test $words[2] = $argv[1]
end

function __fmon_words
    printf '%s\n' $argv
end

# Behind an "@" paths to be left out; fish completes files by itself.
function __fmon_paths
    set -l word (commandline -ct)
    string match -q '@*' -- $word; or return
    __fish_complete_directories (string sub -s 2 -- $word) '' | string replace -r '^' '@'
end

# Words with commas between them: the last is completed.
function __fmon_list
    set -l before (commandline -ct | string replace -r -- '^--[a-z-]+=' '' | string match -r '^.*,')
    for word in $argv
        echo "$before$word"
    end
end

# Processes that listen for dump.
function __fmon_watches
    string replace -rf -- '.* @fmon/(\d+)$' '$1' </proc/net/unix | sort -u
end

complete -c fmon -f
complete -c fmon -n __fmon_needs_verb -a help -d 'explain a verb'
@TABLES@
