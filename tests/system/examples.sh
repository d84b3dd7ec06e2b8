#!/bin/sh
# examples.sh BIN SOURCE_DIR: each example of README, `fmon VERB --help` and the manual pages is run, with its directories below
# one of the test's, and shows what is expected. Those that are not run stand here with the reason.
# shellcheck disable=SC2016,SC2317 # a script's own variables; what a trap calls
set -eu
PATH=$1:$PATH
source_dir=$2
# Names of processes are root's.
[ "$(id -u)" = 0 ] || exit 77
work=$(mktemp -d)
chmod 755 "$work"
running=
stop() {
    kill -TERM "-$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
}
end() {
    for each in $running; do stop "$each"; done
    rm -rf "$work"
}
trap end EXIT
trap 'exit 1' HUP INT TERM
bad=0
wrong() {
    echo "$1" >&2
    bad=1
}

# An example, and an expression of grep -E for what it shows while act() is done again and again; "-" and a reason: it is not run.
expectations() {
    cat <<'END'
./dev run /some/dir => - builds all of this
./dev test => - runs this
systemctl enable --now fmon => - needs systemd and the package: see tests/packages
systemctl reload fmon => - needs systemd and the package: see tests/packages
fmon watch -r /etc => create.*/etc/new
fmon watch --format json -r /data => "path":".*/data/new
fmon watch -r --format json /data | jq .path => ^".*/data/new
fmon watch -r --pid -e modify,close_write /srv => /srv/file .*sh\[
fmon watch -r --user '!root' /usr => /usr/other
fmon watch -r --process dpkg /usr => /usr/package .*dpkg\[
fmon watch -r /srv @/srv/backup => create.*/srv/notes/new
fmon watch -r -q -0 -e create --format %p /data | xargs -0 -n 1 handle => handled .*/data/new
fmon watch -q -t 10 -n 1 -e create --include '/ready$' /run => create .*/run/ready
fmon watch -q -n 1 -e create --include '/ready$' /run => create .*/run/ready
fmon watch -q --exec 'make -s' -e close_write src => ^made -s
fmon watch --exec 'make -s' -e close_write src => ^made -s
fmon watch -r --exec 'make -s' -e close_write src => ^made -s
fmon watch --wait /var/log/app.log => /var/log/app.log
fmon watch '/home/*/.ssh' => /home/u/.ssh/key
fmon watch -r -e modify,close_write -f '%n[%P] wrote %p' /srv => sh\[[0-9]+\] wrote .*/srv/file
fmon watch -r --format json -e close_write,delete /srv/notes => "events":\["close_write"\],"path":".*/srv/notes/
fmon watch --system -e create,delete,close_write,moved_from,moved_to => - the whole machine, by kernel probes
fmon run => watching: 1 instance
fmon run --check => is right: 1 instance
fmon run --config ./my.toml => watching: 1 instance
fmon stats => ^instance +example
fmon stats -f json | jq .losses => ended
fmon stats -f prometheus => fmon_events_in_total
fmon stats -f prometheus > /var/lib/collector/fmon.prom => ended
fmon top => - the whole machine, on a terminal: see top_screen.py
fmon top -r -e all /srv => - a terminal: see top_screen.py
fmon top --batch -n 1 -d 10 -r /var => /var/log/app.log
fmon dump => /dumped|more than one
fmon dump -t instances 4711 => /dumped
fmon dump -t events --hold 5 => ended
fmon doctor => inotify watches
fmon doctor | grep -v '^ok' => ended
fmon doctor --format json => "check"
fmon doctor | grep -e inotify -e 'sources /' -e 'files ' => inotify watches
fmon offsets => ended
fmon offsets >> /etc/fmon/fmon.ini => ended
fmon offsets /boot/vmlinuz-6.1.0-37-amd64 => vmlinuz-6.1.0-37-amd64: No such file
fmon offsets /boot/vmlinuz-6.1.0-50-cloud-amd64 => vmlinuz-6.1.0-50-cloud-amd64: No such file
fmon offsets --release 6.1.0-37-amd64 btf => s_mounts_offset = [0-9]
END
}

# Options of `--help`, each .Dl of a manual page, and the commands of README's blocks.
examples() {
    for verb in '' watch run stats top dump doctor offsets; do
        # shellcheck disable=SC2086 # none is no argument
        fmon $verb --help | sed -n '/^Examples:/,/^$/s/^  \(sudo \)\{0,1\}\(.*[^ ]\)   *[^ ].*$/\2/p' | sed 's/   *.*//'
    done
    sed -n 's/^\.Dl \(fmon\)/\1/p' "$source_dir"/docs/*.1
    awk '/^```/ { inside = !inside; next } inside' "$source_dir/README.md" | sed -n 's/  *# .*//; s/^\$ //; /^\(fmon\|systemctl\|\.\/dev\) /p'
}

prepare() {
    cd "$work"
    mkdir -p bin etc/fmon srv/notes data usr run var/log var/lib/collector home/u/.ssh boot src dumped
    chmod 777 usr
    printf '#!/bin/sh\necho "made $*"\n' >bin/make
    printf '#!/bin/sh\necho "handled $1"\n' >bin/handle
    cp /bin/sh bin/dpkg
    chmod 755 bin/*
    PATH=$work/bin:$PATH
    cat >"$1.toml" <<END
[service]
socket = "$work/$1.sock"
state_directory = "$work/state"
[[instance]]
name = "example"
watch = [{ paths = ["$work/srv"] }]
output = [{ type = "file", path = "$work/$1.json" }]
END
    cp /sys/kernel/btf/vmlinux btf 2>/dev/null || true
}

turn=0
act() {
    turn=$((turn + 1))
    for directory in etc data srv/notes; do echo x >"$directory/new$turn"; done
    for file in srv/file var/log/app.log home/u/.ssh/key src/main.c; do echo x >>"$file"; done
    rm -f run/ready && : >run/ready
    bin/dpkg -c "echo x >>'$work/usr/package'"
    setpriv --reuid 65534 --clear-groups sh -c "echo x >>'$work/usr/other'"
}

# The example as it is run here: below $work, of this service and that watch, and quicker.
local_form() {
    printf '%s\n' "$1" | sed -E -e "s#(^|[ '@])/(etc|srv|data|usr|run|var|home|boot)#\\1$work/\\2#g" \
        -e "s#^fmon run( --check)?\$#fmon run\\1 --config $work/second.toml#" -e "s#^fmon stats#& --socket $work/first.sock#" \
        -e "s/ 4711/ $watch/; s/-d 10/-d 1/; s/--hold 5/--hold 1/"
}

start() {
    setsid "$@" &
    running="$running $!"
}

# begin NUMBER LINE PATTERN
begin() {
    printf '%s\n' "$2" >"$1.line"
    printf '%s\n' "$3" >"$1.pattern"
    start sh -c "exec >$1.out 2>&1 </dev/null; $(local_form "$2"); echo ended"
    waiting="$waiting $1"
}

# Those of $waiting that have not shown what they should.
look() {
    left=
    for number in $waiting; do
        grep -qE -f "$number.pattern" "$number.out" 2>/dev/null || left="$left $number"
    done
    waiting=$left
}

# All at once: a minute is enough for a slow machine.
waiting=
examples | sort -u >"$work/examples"
expectations >"$work/expected"
for name in second my first; do prepare $name; done
start fmon run --config first.toml >/dev/null 2>service.log
start fmon watch -q -r "$work/dumped" >/dev/null
watch=$!
until [ -S first.sock ] && fmon dump -t instances $watch 2>/dev/null | grep -q dumped; do sleep 0.1; done
number=0
while IFS= read -r line; do
    number=$((number + 1))
    row=$(awk -v line="$line => " 'index($0, line) == 1' expected | head -n 1)
    expected=${row#"$line => "}
    case "$expected $line" in
    ' '*) wrong "nothing is expected of: $line" ;;
    '- '*) ;;
    *jq*) ! command -v jq >/dev/null || begin $number "$line" "$expected" ;;
    *btf) [ ! -s btf ] || begin $number "$line" "$expected" ;;
    *) begin $number "$line" "$expected" ;;
    esac
done <examples
rounds=0
until look && [ -z "$waiting" ] || [ $rounds -ge 600 ]; do
    rounds=$((rounds + 1))
    act
    sleep 0.1
done
for number in $waiting; do wrong "not shown: $(cat "$number.line"): $(head -c 2000 "$number.out")"; done
while IFS= read -r row; do
    grep -qxF -- "${row%% => *}" examples || wrong "no such example: ${row%% => *}"
done <expected
exit $bad
