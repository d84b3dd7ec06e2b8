#!/bin/sh
# from_other_tools.sh BIN SOURCE_DIR: each line of docs/from-other-tools.md that runs fmon does what the page says; of the others,
# those of inotifywait and fatrace where they are installed. Each command is started, and what it is about is done again and
# again until it shows it.
# shellcheck disable=SC2317 # what is called by a made-up name
set -eu
PATH=$1:$PATH
page=$2/docs/from-other-tools.md
work=$(mktemp -d)
srv=$work/srv
running=
end() {
    [ -z "$running" ] || kill -TERM "-$running" 2>/dev/null || kill "$running" 2>/dev/null || true
    rm -rf "$work"
}
trap end EXIT
trap 'exit 1' HUP INT TERM
bad=0
wrong() {
    echo "$1" >&2
    bad=1
}
# Marks of mounts, and names of processes, are root's.
[ "$(id -u)" = 0 ] || exit 77

# What is done for a command, and what it then shows: a pattern of what happens, an expression of grep -E.
do_anything() { echo x >"$srv/a.txt"; }
do_write() { echo x >>"$srv/file"; }
do_read() { cat "$srv/file" >/dev/null; }
do_rename() { : >"$srv/old" && mv "$srv/old" "$srv/new"; }
do_remove() { : >"$srv/gone" && rm "$srv/gone"; }
do_chmod() { chmod 600 "$srv/file" && chmod 644 "$srv/file"; }
do_passwd() { echo x >>"$srv/passwd"; }
do_secret() { cat "$srv/secret" >/dev/null; }
do_later() { rm -f "$srv/later" && echo x >"$srv/later" && echo y >>"$srv/later"; }
do_key() { echo x >"$srv/u/.ssh/key"; }
do_nothing() { :; }

# expectations of the page's lines, in its order: the line as it stands there, what is done, what is shown.
expectations() {
    cat <<'END'
inotifywait -m -r /srv|anything|/srv/ (CREATE|MODIFY|OPEN|CLOSE).*a.txt
fmon watch -r /srv|anything|(create|modify).*/srv/a.txt
inotifywait -e create /srv|remove|/srv/ CREATE gone
fmon watch -q -n 1 -e create /srv|remove|create.*/srv/gone
inotifywait -t 20 -e modify /srv|write|/srv/ MODIFY file
fmon watch -q -n 1 -t 20 -e modify /srv|write|modify.*/srv/file
inotifywait -m --timefmt %FT%T --format '%T %w %f %e' /srv|write|^20..-..-..T..:..:.. .*/srv/ file MODIFY
fmon watch --time-format %FT%T -f '%t %w %F %e' /srv|write|^20..-..-..T..:..:.. .*/srv/ file .*modify
inotifywait -m --includei '[.]txt$' /srv|anything|a.txt
fmon watch --iinclude '[.]txt$' /srv|anything|/srv/a.txt
inotifywait -m -r --exclude '[.]swp$|~$' /srv|anything|a.txt
fmon watch -r --exclude '[.]swp$|~$' /srv|anything|/srv/a.txt
inotifywait -m --fromfile /srv/list|write|/srv/file MODIFY
fmon watch --fromfile /srv/list|write|modify.*/srv/file
inotifywait -m -r -e move /srv|rename|/srv/ MOVED_TO new
fmon watch -r -e move --pair-renames /srv|rename|moved_to .*/srv/new( \(from .*/srv/old\))?
inotifywait -m -q -e close_write --format %w%f /srv | while read -r f; do echo "saved $f"; done|write|^saved .*/srv/file
fmon watch -q -e close_write --exec 'echo "saved $FMON_PATH"' /srv|write|^saved .*/srv/file
inotifywait -m -r -o /srv.log --timefmt %F,%T --format '%T %w%f %e' /srv|write|^20..-..-..,..:..:.. .*/srv/file MODIFY
fmon watch -r -o /srv.log --time-format %F,%T -f '%t %p %e' /srv|write|^20..-..-..,..:..:.. .*/srv/file .*modify
inotifywait -m -r /srv @/srv/u|anything|/srv/ (CREATE|MODIFY|OPEN|CLOSE).*a.txt
fmon watch -r /srv @/srv/u|anything|(create|modify).*/srv/a.txt
(cd /srv && fatrace -c)|write|sh\([0-9]+\): .*/srv/file
fmon watch --mount -e all /srv|write|modify.*/srv/file .*sh\[
(cd /srv && fatrace -c -f W)|write|sh\([0-9]+\): C?W.* .*/srv/file
fmon watch --mount -e modify,close_write /srv|write|modify.*/srv/file .*sh\[
(cd /srv && fatrace -c -f R)|read|cat\([0-9]+\): R.* .*/srv/file
fmon watch --mount -e access /srv|read|access.*/srv/file .*cat\[
(cd /srv && fatrace -c -s 5)|write|sh\([0-9]+\): .*/srv/file
timeout -s INT 5 fmon watch --mount -e all /srv|write|modify.*/srv/file .*sh\[
(cd /srv && fatrace -c -t)|write|^[0-9:.]+ sh\([0-9]+\): .*/srv/file
fmon watch --mount -e all --time-format %T.%6N /srv|write|^..:..:..\.[0-9]{6} .*/srv/file
(cd /srv && fatrace -c -t -t)|write|^[0-9]+\.[0-9]+ sh\([0-9]+\): .*/srv/file
fmon watch --mount -e all --time-format %s.%6N /srv|write|^[0-9]{10}\.[0-9]{6} .*/srv/file
(cd /srv && fatrace -c -o /srv.log)|write|sh\([0-9]+\): .*/srv/file
fmon watch --mount -e all -o /srv.log /srv|write|modify.*/srv/file
(cd /srv && fatrace -c | grep --line-buffered /srv/)|write|sh\([0-9]+\): .*/srv/file
fmon watch -r -e all /srv|read|access.*/srv/file
(cd /srv && fatrace -c -f C)|write|sh\([0-9]+\): C.* .*/srv/file
fmon watch --mount -e close -f '%n(%P): %e %p' /srv|write|^sh\([0-9]+\): .*close_write .*/srv/file
fmon watch -r -e close_write --ancestors /srv|write|close_write .*/srv/file .*sh\[[0-9]+\] < 
(cd /srv && fatrace -c -C cat)|read|cat\([0-9]+\): R?C?O? .*/srv/file
fmon watch --mount -e all --process cat /srv|read|access.*/srv/file .*cat\[
(cd /srv && fatrace -c -p 1)|write|sh\([0-9]+\): .*/srv/file
fmon watch --mount -e all --process-id '!1' /srv|write|modify.*/srv/file .*sh\[
fmon watch -e modify,close_write,attrib -f json /srv/passwd|passwd|"events":\[.*"path":".*/srv/passwd".*"loginuid|"path":".*/srv/passwd"
fmon watch -r -f json /srv|write|"path":".*/srv/file"
fmon watch -e access,open /srv/secret|secret|/srv/secret .*cat\[
fmon watch -r -e delete -f json /srv|remove|"events":\["delete"\],"path":".*/srv/gone"
fmon watch -r -e move --pair-renames -f json /srv|rename|"moved_to".*"path":".*/srv/new"
fmon watch -r -e attrib /srv|chmod|attrib .*/srv/file
fmon watch --wait /srv/later|later|/srv/later
fmon watch '/srv/*/.ssh'|key|/srv/u/.ssh/key
fmon watch -r -f csv /srv|write|^20[^,]*,.*,.*/srv/file,[0-9]+,
fmon dump -t instances|nothing|/srv
fmon watch -r -e close_write --user root /srv|write|close_write .*/srv/file .*sh\[
END
}

# Patterns and commands have "|" in them: the kind of what is done, a word, tells the three parts apart.
part() { printf '%s\n' "$1" | sed -E "s/^(.*)\\|(anything|write|read|rename|remove|chmod|passwd|secret|later|key|nothing)\\|(.*)$/\\$2/"; }

prepare() {
    rm -rf "$srv" "$srv.log" "$work/out"
    mkdir -p "$srv/u/.ssh"
    for file in file passwd secret; do echo x >"$srv/$file"; done
    echo "$srv/file" >"$srv/list"
}

shown() { cat "$work/out" "$srv.log" 2>/dev/null | grep -qE "$1"; }

# try LINE WHAT PATTERN: 15 seconds are enough for a slow machine.
try() {
    prepare
    setsid sh -c "$(printf '%s\n' "$1" | sed "s|/srv|$srv|g")" >"$work/out" 2>"$work/talk" </dev/null &
    running=$!
    tries=0
    until "do_$2" && shown "$3"; do
        tries=$((tries + 1))
        if [ $tries -gt 150 ]; then
            wrong "not shown: $1: $(cat "$work/out" "$work/talk")"
            break
        fi
        sleep 0.1
    done
    kill -TERM "-$running" 2>/dev/null || true
    wait "$running" 2>/dev/null || true
    running=
}

# The lines of the page's blocks.
sed -n 's/^ \{3,4\}//p' "$page" | grep -E '(^|[( ])(inotifywait|fmon|fatrace|auditctl|ausearch) ' | grep -vE '^[A-Z]' >"$work/lines"
expectations >"$work/expected"
while IFS= read -r line; do
    case $line in
    *auditctl* | *ausearch*) continue ;;
    *inotifywait*) command -v inotifywait >/dev/null || continue ;;
    *fatrace*) command -v fatrace >/dev/null || continue ;;
    esac
    row=$(awk -v line="$line|" 'index($0, line) == 1' "$work/expected" | head -n 1)
    if [ -z "$row" ]; then
        wrong "nothing is expected of: $line"
    elif [ "$line" = "fmon dump -t instances" ]; then
        prepare
        fmon watch -q -r "$srv" >"$work/out" &
        running=$!
        tries=0
        until fmon dump -t instances "$running" 2>/dev/null | grep -q "$srv" || [ $tries -gt 150 ]; do
            tries=$((tries + 1))
            sleep 0.1
        done
        [ $tries -le 150 ] || wrong "not shown: $line"
        kill "$running"
        wait "$running" || true
        running=
    else
        try "$line" "$(part "$row" 2)" "$(part "$row" 3)"
    fi
done <"$work/lines"
[ "$(grep -c fmon "$work/lines")" = 34 ] || wrong "the page has not thirty-four lines of ours"
while IFS= read -r row; do
    grep -qxF -- "$(part "$row" 1)" "$work/lines" || wrong "not on the page: $(part "$row" 1)"
done <"$work/expected"
exit $bad
