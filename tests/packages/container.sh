#!/bin/sh
# container.sh PACKAGES SOURCE_DIR: the agent of a host in a container, which runc starts with the mounts and rights that
# docs/container-agent.md has, from what packaging/image/Dockerfile takes: it sees a change of the host's, and who made it. Only
# the log and the state are this test's own directories, and of the host's files one directory is watched.
set -eu

packages=$1 source_dir=$2
[ "$(id -u)" = 0 ] && command -v runc >/dev/null && unshare -m true 2>/dev/null || exit 77
work=$(mktemp -d)
id=fmon-$$
runc() { command runc --root "$work/state" "$@"; }
trap 'runc delete -f $id >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
trap 'exit 1' INT TERM
wrong() {
    echo "$1" >&2
    exit 1
}
# Until the command succeeds.
await() {
    tries=0
    until "$@"; do
        tries=$((tries + 1))
        [ $tries -lt 600 ] || wrong "$*: $(cat "$work/talk" "$work"/log/*.json 2>/dev/null)"
        sleep 0.05
    done
}

# ---- the image's content: the packages, with the libraries that they depend on ----

root=$work/rootfs
for package in "$packages"/libfmon1_*.deb "$packages"/fmon_*.deb; do dpkg -x "$package" "$root"; done
for file in "$root/usr/bin/fmon" "$root"/usr/lib/fmon/*.so; do LD_LIBRARY_PATH=$root/usr/lib/fmon ldd "$file"; done |
    awk '$2 == "=>" && $3 ~ /^\// { print $3 } $1 ~ /^\// { print $1 }' | grep -v "^$root" | sort -u |
    while read -r library; do install -D "$library" "$root$library"; done
mkdir -p "$root/rootfs" "$root/var/lib/fmon" "$root/run" "$root/proc" "$root/dev" "$root/sys" "$work/lib" "$work/log" "$work/watched"
sed -n "s/.*&& \(sed .*\)/\1/p" "$source_dir/packaging/image/Dockerfile" | sed "s|/etc/fmon|$root&|" >"$work/edit"
sh "$work/edit"
grep -q '"/rootfs/etc"' "$root/etc/fmon/fmon.toml" || wrong "the image watches its own files: $(cat "$work/edit")"
# All of the machine would be watched as well; other tests write there.
sed -i "/^  paths = \[/,/\]/c paths = [\"/rootfs$work/watched\"]" "$root/etc/fmon/fmon.toml"

# ---- the container, as the page says ----

(cd "$work" && runc spec)
python3 - "$source_dir" "$work" <<'END'
import json, re, sys
source, work = sys.argv[1:]
page = open(source + '/docs/container-agent.md').read()
command = re.search(r'^docker run (.*?)\n```', page, re.S | re.M).group(1)
config = json.load(open(work + '/config.json'))
capabilities = ['CAP_' + name for name in re.findall(r'--cap-add=(\w+)', command)]
assert len(capabilities) == 4 and '--cap-drop=ALL' in command
for kind in config['process']['capabilities']:
    config['process']['capabilities'][kind] = capabilities
image = open(source + '/packaging/image/Dockerfile').read()
config['process'].update(terminal=False, noNewPrivileges='no-new-privileges' in command, args=
    json.loads(re.search(r'^ENTRYPOINT (.*)', image, re.M).group(1)) + json.loads(re.search(r'^CMD (.*)', image, re.M).group(1)))
config['process']['env'] += re.findall(r'^ENV (\S+)', image, re.M)
config['root']['readonly'] = '--read-only' in command
for kind, option in (('pid', '--pid=host'), ('network', '--network=host')):
    assert option in command
    config['linux']['namespaces'] = [n for n in config['linux']['namespaces'] if n['type'] != kind]
for mount in re.findall(r'--mount=(\S+)', command):
    fields = dict(field.partition('=')[::2] for field in mount.split(','))
    if fields['type'] == 'tmpfs':
        config['mounts'].append({'destination': fields['dst'], 'type': 'tmpfs', 'source': 'tmpfs', 'options': ['nosuid', 'nodev']})
        continue
    place = {'/var/lib/fmon': work + '/lib', '/var/log/fmon': work + '/log'}.get(fields['src'], fields['src'])
    options = ['rbind', fields.get('bind-propagation', 'rprivate'), 'ro' if 'readonly' in fields else 'rw']
    config['mounts'].append({'destination': fields['dst'], 'type': 'bind', 'source': place, 'options': options})
json.dump(config, open(work + '/config.json', 'w'))
END
runc run --bundle "$work" $id >"$work/talk" 2>&1 &
container=$!
events=$work/log/events.json
is_watching() { kill -0 $container 2>/dev/null && grep -q '"type":"established"' "$events" 2>/dev/null; }
await is_watching
grep -q '"source":"filesystem"' "$events" || echo "container: marks on directories only: $(head -n 1 "$events")"

python3 -c 'import sys, time; open(sys.argv[1], "w").close(); time.sleep(2)' "$work/watched/file"
is_seen() { grep "\"path\":\"/rootfs$work/watched/file\"" "$events" | grep '"create"' | grep -q '"process":{"name":"python3"'; }
await is_seen

# ---- the end: told to, what is seen is written, and the state is there for the next ----

runc kill $id TERM
wait $container || wrong "$(cat "$work/talk")"
grep -q 'ended: all is delivered' "$work/talk" || wrong "$(cat "$work/talk")"
ls "$work"/lib/watched-* >/dev/null || wrong "no state"
