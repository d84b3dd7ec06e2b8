#compdef fmon
# zsh completion for fmon(1)
#
# The build puts the verbs, their options and what completes the values in the place of the line that says so; that code
# calls the functions below.

_fmon_files() { _files; }

# Paths to be watched, and behind an "@" those to be left out.
_fmon_paths()
{
    if compset -P @; then
        _files -/
    else
        _files
    fi
}

_fmon_words()
{
    local -a end
    [[ $1 != *= ]] || end=(-S '')
    compadd $end -- "$@"
}

# Words with commas between them: the last is completed.
_fmon_list()
{
    compset -P '*,'
    compadd -S '' -- "$@"
}

# Processes that listen for dump.
_fmon_watches()
{
    compadd -- ${(fu)"$(sed -n 's/.* @fmon\/\([0-9]\{1,\}\)$/\1/p' /proc/net/unix 2>/dev/null)"}
}

@TABLES@

_fmon()
{
    local curcontext=$curcontext state line
    local -a verbs specs
    _fmon_table
    _arguments -C -S : $specs '1: :->verb' '*:: :->rest'
    case $state in
    verb) _describe verb verbs -- '(help:explain\ a\ verb)' ;;
    rest)
        if [[ $words[1] == help ]]; then
            _describe verb verbs
        else
            _fmon_verb_table $words[1]
            _arguments -s -S : $specs
        fi
        ;;
    esac
}

_fmon "$@"
