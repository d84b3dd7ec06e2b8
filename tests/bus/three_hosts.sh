#!/bin/sh
# three_hosts.sh FMON SOURCE_DIR: three hosts, each with a network, mounts and a name of its own, run the service into one JetStream as
# docs/buses.md says, and one query answers who deleted /srv/x, on which host, in which container. One host's cable is pulled
# meanwhile: what happened there arrives when it is back, once.
# shellcheck disable=SC2016 # what others expand
set -eu
fmon=$1
reader=$2/docs/readers/jetstream.py
[ "$(id -u)" = 0 ] || exit 77
for tool in nats-server ip jq python3 nsenter; do
    command -v "$tool" >/dev/null || { echo "there is no $tool"; exit 77; }
done
if [ "${FMON_THREE_HOSTS:-}" != inside ]; then
    unshare -n -m true || exit 77
    FMON_THREE_HOSTS=inside exec unshare -n -m "$0" "$@"
fi

work=$(mktemp -d)
id=$(printf '%064x' $$)
group=
started=
end() {
    # shellcheck disable=SC2086 # several
    [ -z "$started" ] || kill -KILL $started 2>/dev/null || true
    wait
    [ -z "$group" ] || rmdir "$group" 2>/dev/null || true
    rm -rf "$work"
}
trap end EXIT
trap 'exit 1' HUP INT TERM
fail() {
    echo "$1" >&2
    tail -n 20 "$work"/*.log >&2
    exit 1
}
# Until the command succeeds, for a minute.
await() {
    what=$1
    shift
    for _ in $(seq 600); do
        "$@" && return
        sleep 0.1
    done
    fail "$what"
}

ip link set lo up
nats-server -a 0.0.0.0 -p 4222 -js -sd "$work/store" >"$work/server.log" 2>&1 &
started="$started $!"
make_stream() { python3 "$reader" 127.0.0.1:4222 add FMON 'fmon.>' 2>"$work/stream.log"; }
await "no stream" make_stream

# A host: its name, its number. Its side of the cable is called bus, ours by the host's name.
start_host() {
    mkdir "$work/$1"
    cat >"$work/$1/fmon.toml" <<END
[service]
socket = "$work/$1/socket"
state_directory = "$work/$1/state"

[[instance]]
name = "data"

  [[instance.watch]]
  paths = ["/srv"]
  recursive = true
  events = ["create", "delete"]

  [[instance.output]]
  type = "nats"
  servers = ["nats://10.77.$2.1:4222"]
  spool = "$work/$1/spool"
  ack_timeout = "2 s"
END
    unshare -n -m -u sh -c 'hostname "$1" && mount -t tmpfs none /srv && echo >"$2/ready" && exec sleep 600' sh "$1" "$work/$1" &
    host=$!
    started="$started $host"
    await "no host $1" test -e "$work/$1/ready"
    ip link add "$1" type veth peer name bus netns "$host"
    ip address add "10.77.$2.1/24" dev "$1"
    ip link set "$1" up
    on "$host" sh -c 'ip link set lo up; ip address add "$1" dev bus; ip link set bus up' sh "10.77.$2.2/24"
    become "$host" "$fmon" run --config "$work/$1/fmon.toml" >"$work/$1.log" 2>&1 &
    started="$started $!"
    await "$1 does not watch" grep -q 'watching: 1 instance' "$work/$1.log"
}
on() { (become "$@"); }
# The same instead of this process.
become() {
    host_pid=$1
    shift
    exec nsenter -t "$host_pid" -n -m -u "$@"
}
start_host alpha 1
alpha=$host
start_host beta 2
beta=$host
start_host gamma 3
gamma=$host

# A process of a container, by its control group, where these can be made.
for root in /sys/fs/cgroup/systemd /sys/fs/cgroup/unified /sys/fs/cgroup; do
    [ -w "$root/cgroup.procs" ] && mkdir -p "$root/docker-$id.scope" 2>/dev/null && group=$root/docker-$id.scope && break
done

# Until each host is known to deliver.
on "$alpha" touch /srv/x /srv/y
on "$beta" touch /srv/x
on "$gamma" touch /srv/x
has() { python3 "$reader" 127.0.0.1:4222 read FMON "$1" 2>"$work/read.log" | jq -e -s "$2" >/dev/null 2>&1; }
await "not all hosts have created" has 'fmon.*.data.create' '[.[] | select(.path == "/srv/x") | .host] | unique | length == 3'

# What is asked for. The process stays until it is known: in a network of its own no service learns of processes that end.
cat >"$work/delete.sh" <<'END'
[ -z "$1" ] || echo $$ >"$1/cgroup.procs"
exec /usr/bin/python3 -c 'import os, time; os.unlink("/srv/x"); time.sleep(600)'
END
become "$beta" sh "$work/delete.sh" "$group" &
started="$started $!"
# Meanwhile another's cable is pulled.
ip link set alpha down
on "$alpha" rm /srv/y
on "$alpha" sh -c 'for i in $(seq 200); do echo >/srv/f$i; rm /srv/f$i; done'
await "alpha does not say that it is cut off" grep -q 'is stuck' "$work/alpha.log"
[ -z "${FMON_BUS_LONG:-}" ] || sleep 60 # a cable that is out for a minute
ip link set alpha up
deletions='[.[] | select(.path == "/srv/x")] | length == 1'
await "no deletion" has 'fmon.*.data.delete' "$deletions"
await "alpha is not heard again" has 'fmon.alpha.data.delete' 'length == 201 and ([.[] | .path] | unique | length == 201)'

answer=$(python3 "$reader" 127.0.0.1:4222 read FMON 'fmon.*.*.delete' |
    jq -c 'select(.path == "/srv/x") | {host, container, process: .process.name, uid: .process.uid}')
echo "$answer"
container=null
[ -z "$group" ] || container=\"$id\"
[ "$answer" = "{\"host\":\"beta\",\"container\":$container,\"process\":\"python3\",\"uid\":0}" ] || fail "that is not who did it"
