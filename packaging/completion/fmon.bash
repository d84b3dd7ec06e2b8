# bash completion for fmon(1)                                   -*- shell-script -*-
#
# The build puts the verbs, their options and what completes the values in the place of the line that says so; that code
# calls the functions below, which complete the word "$current".

_fmon_any() { COMPREPLY=(); }

_fmon_files()
{
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
    compopt -o filenames 2>/dev/null || :
}

# Paths to be watched, and behind an "@" those to be left out.
_fmon_paths()
{
    if [[ $current != @* ]]; then
        _fmon_files
        return
    fi
    mapfile -t COMPREPLY < <(compgen -P @ -S / -d -- "${current#@}")
    compopt -o nospace 2>/dev/null || :
}

_fmon_words()
{
    mapfile -t COMPREPLY < <(compgen -W "$*" -- "$current")
    [[ ${COMPREPLY[0]-} != *= ]] || compopt -o nospace 2>/dev/null || :
}

# Words with commas between them: the last is completed.
_fmon_list()
{
    local before=
    [[ $current != *,* ]] || before=${current%,*},
    mapfile -t COMPREPLY < <(compgen -P "$before" -W "$*" -- "${current##*,}")
    compopt -o nospace 2>/dev/null || :
}

# Processes that listen for dump.
_fmon_watches()
{
    # shellcheck disable=SC2046 # numbers
    _fmon_words $(sed -n 's/.* @fmon\/\([0-9]\{1,\}\)$/\1/p' /proc/net/unix 2>/dev/null | sort -u)
}

@TABLES@

_fmon()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} verb='' options=''
    COMPREPLY=()
    ((COMP_CWORD <= 1)) || verb=${COMP_WORDS[1]}
    # "--name=value" comes as three words.
    if [[ $current == '=' ]]; then
        current=
    elif [[ $previous == '=' ]]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    if [[ -n $verb ]] && _fmon_value "$verb" "$previous"; then
        return
    elif [[ $current == -* ]]; then
        _fmon_options "$verb"
        _fmon_words "$options"
    elif [[ -z $verb ]]; then
        _fmon_words "$_fmon_verbs help"
    elif [[ $verb == help ]]; then
        _fmon_words "$_fmon_verbs"
    else
        _fmon_argument "$verb"
    fi
}

complete -F _fmon fmon
