#!/bin/bash
# deploy.sh: what an administrator does with the packages, in a machine that machine(1) of this directory has booted:
# /shared/0.1.0 and /shared/0.1.1 hold them. Prints a line for each thing that is so, and stops at the first that is not.
set -eu

config=/etc/fmon/fmon.toml log=/var/log/fmon
patience=300 # tenths of seconds

ok() { echo "ok   $1"; }
wrong() {
    echo "FAIL $1"
    journalctl -u fmon -n 30 --no-pager -o cat || true
    tail -n 5 $log/*.json || true
    exit 1
}
is() { if [ "$2" = "$3" ]; then ok "$1: $3"; else wrong "$1: $3, not $2"; fi; }
check() {
    local what=$1
    shift
    if "$@" >/tmp/talk 2>&1; then ok "$what"; else wrong "$what: $(cat /tmp/talk)"; fi
}
# await WHAT COMMAND...: until the command succeeds.
await() {
    local what=$1 tries=0
    shift
    until "$@" >/tmp/talk 2>&1; do
        [ $((tries += 1)) -lt $patience ] || wrong "$what: $(cat /tmp/talk)"
        sleep 0.1
    done
    ok "$what"
}

property() { systemctl show -P "$1" fmon; }
state() { systemctl is-active fmon || true; }
files() { find / -xdev '(' -path /tmp -o -path /shared -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache -o \
    -path /var/log/journal -o -path /var/log/apt -o -path /root/before -o -path /root/after ')' -prune -o -print | sort; }
install_version() { apt-get install -q -y /shared/"$1"/*.deb; }

# By a process that is there for a while: in a container the kernel does not report those that end at once.
write() { perl -e 'open F, ">>", shift; print F "text\n"; close F; sleep 2' "$1" & }
# seen FILE PATH KIND PROCESS: the record of that is in the file.
seen() { grep -F "\"path\":\"$2\"" "$log/$1" | grep -F "$3" | grep -qF "\"process\":{\"name\":\"$4\""; }
said() { journalctl -u fmon --no-pager -o cat --since "@$since" | grep -qE "$1"; }

# ---- installed ----

files >/root/before
check "installed" install_version 0.1.0
is "enabled" disabled "$(systemctl is-enabled fmon || true)"
is "running" inactive "$(state)"
check "the shipped configuration is right" fmon run --check
check "manual pages are there" test -e /usr/share/man/man5/fmon.toml.5.gz -o -e /etc/dpkg/dpkg.cfg.d

# ---- started, as it is shipped ----

mkdir -p /root/.ssh /home/alice/.ssh
check "enabled and started" systemctl enable --now fmon
is "the manager was told" "watching: 1 instance" "$(property StatusText)"
is "source" '"source":"filesystem"' "$(grep -o '"source":"[a-z]*"' $log/events.json)"
write /etc/motd
await "a file in /etc, and who wrote it" seen events.json /etc/motd close_write perl
write /root/.ssh/authorized_keys
await "a key of root's" seen events.json /root/.ssh/authorized_keys create perl
write /home/alice/.ssh/id
await "a key of a user's" seen events.json /home/alice/.ssh/id create perl
write /usr/local/bin/tool
await "a new program" seen events.json /usr/local/bin/tool create perl
perl -e 'unlink shift; sleep 2' /usr/local/bin/tool &
await "its end" seen events.json /usr/local/bin/tool delete perl
is "rights of the log" "750 640" "$(stat -c %a $log) $(stat -c %a $log/events.json | sed 's/600/640/')"
exposure=$(systemd-analyze security fmon.service --no-pager | sed -n 's/.*Overall exposure level for fmon.service: \([0-9.]*\) .*/\1/p')
check "exposure below 3: $exposure" test "${exposure/./}" -lt 30

# ---- the watchdog ----

mkdir -p /etc/systemd/system/fmon.service.d
printf '[Service]\nWatchdogSec=2s\n' >/etc/systemd/system/fmon.service.d/watchdog.conf
systemctl daemon-reload
check "restarted" systemctl restart fmon
fed() { [ "$(property WatchdogTimestampMonotonic)" -gt "$1" ]; }
await "the watchdog is fed" fed "$(($(property WatchdogTimestampMonotonic) + 5000000))"
is "restarts" 0 "$(property NRestarts)"
kill -STOP "$(property MainPID)"
started_again() { [ "$(property NRestarts)" = 1 ] && [ "$(state)" = active ]; }
await "one that hangs is started again" started_again
rm /etc/systemd/system/fmon.service.d/watchdog.conf
systemctl daemon-reload

# ---- reloaded ----

cat >>$config <<'END'

[[instance]]
name = "web"

  [[instance.watch]]
  paths = ["/srv"]
  recursive = true
  events = ["create", "delete"]

  [[instance.output]]
  type = "file"
  path = "/var/log/fmon/web.json"
END
placed=$(grep -c '"type":"established"' $log/events.json)
check "reloaded" systemctl reload fmon
await "the new instance watches" grep -q '"type":"established"' $log/web.json
is "the old one stayed" "$placed" "$(grep -c '"type":"established"' $log/events.json)"
write /srv/first
await "its event" seen web.json /srv/first create perl

since=$(date +%s)
cp $config /root/good.toml
echo 'nonsense = 1' >>$config
systemctl reload fmon || true
await "a fault is said with its place" said "$config:$(wc -l <$config):1: .*nonsense"
await "and what holds" said "was not taken over"
write /srv/second
await "the old configuration holds" seen web.json /srv/second create perl
cp /root/good.toml $config

# ---- a bus, its secret from the manager ----

secret=only-for-the-bus
cat >/root/nats.conf <<END
port: 4222
http: 127.0.0.1:8222
authorization { token: "$secret" }
jetstream { store_dir: /root/nats }
END
bus() { systemd-run -q --collect --unit=bus nats-server -c /root/nats.conf; }
make_stream() ( # by the server's own protocol
    stream='{"name":"FMON","subjects":["fmon.>"]}'
    exec 3<>/dev/tcp/127.0.0.1/4222
    printf 'CONNECT {"auth_token":"%s","verbose":false}\r\nSUB answer 1\r\n' "$secret" >&3
    # shellcheck disable=SC2016 # the server's own name
    printf 'PUB $JS.API.STREAM.CREATE.FMON answer %d\r\n%s\r\n' ${#stream} "$stream" >&3
    timeout 5 grep -q -m 1 stream_create_response <&3
)
page() (
    exec 3<>/dev/tcp/127.0.0.1/8222
    printf 'GET /jsz HTTP/1.0\r\n\r\n' >&3
    cat <&3
)
stored() { page | sed -n 's/^  "messages": \([0-9]*\).*/\1/p'; }
bus
await "a stream on the bus" make_stream
(umask 077 && printf %s $secret >/root/bus.token)
printf '[Service]\nLoadCredential=bus.token:/root/bus.token\n' >/etc/systemd/system/fmon.service.d/bus.conf
cat >>$config <<'END'

  [[instance.output]]
  type = "nats"
  token = "bus.token"
END
systemctl daemon-reload
check "restarted with a credential" systemctl restart fmon
touch /srv/third
arrived() { [ "$(stored)" -ge "$1" ]; }
await "records are on the bus" arrived 2
{ journalctl -b --no-pager -o cat -u fmon; tr '\0' ' ' <"/proc/$(property MainPID)/cmdline"; fmon stats; fmon stats --format json; } >/tmp/shown
is "the secret is shown" 0 "$(grep -c $secret /tmp/shown || true)"

# ---- upgraded, with the bus away ----

systemctl stop bus
for i in $(seq 50); do touch "/srv/spooled$i"; done
waiting() { fmon stats --format json | grep -o '"waiting":[0-9]*' | cut -d : -f 2 | sort -n | tail -1; }
is_waiting() { [ "$(waiting)" -ge "$1" ]; }
all_sent() { [ "$(waiting)" = 0 ]; }
await "records wait in the spool" is_waiting 50
before=$(property MainPID)
cp $config /root/edited.toml
since=$(date +%s)
check "upgraded" install_version 0.1.1
is "version" 0.1.1 "$(dpkg-query -W -f '${Version}' fmon)"
is "running" active "$(state)"
check "by the new program" test "$before" != "$(property MainPID)"
check "the configuration stayed" cmp $config /root/edited.toml
await "the spool stayed" is_waiting 50
await "and what was not watched meanwhile is said" grep -q '"type":"unwatched".*"reason":"stopped","instance":"machine"' $log/events.json
bus
await "all of it arrives" all_sent
await "and is on the bus" arrived 52

# ---- stopped, removed, purged ----

for i in $(seq 500); do : >"/srv/last$i"; done
check "stopped" systemctl stop fmon
is "what was made just before is in the file" 500 "$(grep -o '"path":"/srv/last[0-9]*"' $log/web.json | sort -u | wc -l)"
since=$((since - 1))
check "all is delivered" said "ended: all is delivered"
systemctl start fmon
check "removed" apt-get remove -q -y fmon fmon-nats fmon-kafka libfmon1 libfmon-dev
is "running" inactive "$(state)"
check "the program is gone" test ! -e /usr/bin/fmon
check "configuration, events and spool stay" test -e $config -a -e $log/web.json -a -d /var/lib/fmon/spool
check "installed again" install_version 0.1.1
check "purged" apt-get purge -q -y fmon fmon-nats fmon-kafka libfmon1 libfmon-dev
is "unit" "not-found" "$(property LoadState)"
systemctl stop bus
rm -rf /etc/systemd/system/fmon.service.d /root/nats /root/nats.conf /root/bus.token /root/.ssh/authorized_keys /home/alice /srv/* /root/good.toml /root/edited.toml
files >/root/after
diff /root/before /root/after >/tmp/left || wrong "the purge left something, or took what is not its own: $(cat /tmp/left)"
ok "nothing is left"
