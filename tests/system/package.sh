#!/bin/sh
# package.sh BUILD SOURCE_DIR: the Debian package, made under a umask that lets nobody else read: what is in it, that the
# command works from where it was unpacked, that a purge leaves nothing. With lintian, that this finds no error.
set -eu
build=$1 source_dir=$2
umask 077
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
wrong() {
    echo "$1" >&2
    exit 1
}
command -v dpkg-shlibdeps >/dev/null || exit 77

mkdir "$work/out" "$work/root" "$work/watched"
package=$("$source_dir/packaging/deb" "$build" "$work/out" 2>"$work/talk") || wrong "$(cat "$work/talk")"

# ---- what is in it ----

dpkg-deb -c "$package" >"$work/list"
! grep -v ' \./var/log/fmon/$' "$work/list" | grep -vE '^(drwxr-xr-x|-rw-r--r--|-rwxr-xr-x) root/root ' ||
    wrong "not everybody's to read, or not root's"
grep -q '^drwxr-x--- root/root .* \./var/log/fmon/$' "$work/list" || wrong "the log is everybody's to read"
! awk '{ print $6 }' "$work/list" | grep -vE '^\./(etc|usr|var|var/log|usr/(bin|lib|share))?/?$' |
    grep -vE '^\./(etc/fmon|usr/bin/fmon$|usr/lib/fmon|usr/lib/systemd|usr/share/(man|doc|bash-completion|zsh|fish)|var/log/fmon)' ||
    wrong "not a place of the system's"
for file in etc/fmon/fmon.ini etc/fmon/fmon.toml usr/bin/fmon usr/lib/fmon/libfmon.so usr/lib/systemd/system/fmon.service \
    usr/share/man/man1/fmon.1.gz usr/share/doc/fmon/copyright \
    usr/share/bash-completion/completions/fmon usr/share/zsh/site-functions/_fmon \
    usr/share/fish/vendor_completions.d/fmon.fish; do
    grep -q " \./$file$" "$work/list" || wrong "$file is missing"
done

# ---- plug-ins, in packages of their own ----

! grep -q libfmon- "$work/list" || wrong "a plug-in in the package that everybody installs"
for bus in nats kafka; do
    [ -e "$build/../stage/lib/libfmon-$bus.so" ] || continue
    plug_in=$(find "$work/out" -name "fmon-${bus}_*.deb")
    [ -n "$plug_in" ] || wrong "no package fmon-$bus"
    dpkg-deb -c "$plug_in" >"$work/list"
    grep -q "^-rw-r--r-- root/root .* \./usr/lib/fmon/libfmon-$bus.so$" "$work/list" || wrong "$plug_in: no library"
    dpkg-deb -f "$plug_in" Depends | grep -q 'fmon (= .*, lib.*\(nats\|rdkafka\)' || wrong "$plug_in: asks for no engine"
done

# ---- installed below a root of its own ----

# The package's scripts run in there, with a shell that needs nothing else.
can_install() { [ "$(id -u)" = 0 ] && command -v busybox >/dev/null && chroot "$work/root" /bin/sh -c : 2>"$work/talk"; }
administer() {
    dpkg --root="$work/root" --force-depends --force-not-root "$@" >"$work/talk" 2>&1 || wrong "$(cat "$work/talk")"
}
files() { (cd "$work/root" && find . -path ./bin -prune -o -path ./var/lib/dpkg -prune -o -print | sort); }

mkdir -p "$work/root/bin" "$work/root/run" "$work/root/var/log" "$work/root/var/lib/dpkg/info" "$work/root/var/lib/dpkg/updates"
: >"$work/root/var/lib/dpkg/status"
for tool in sh rm; do cp "$(command -v busybox || echo /bin/false)" "$work/root/bin/$tool"; done
: >"$work/root/var/log/other"
files >"$work/before"
if can_install; then
    installed=1
    administer -i "$package"
else
    installed=0
    dpkg -x "$package" "$work/root"
fi

# ---- the command from there ----

program=$work/root/usr/bin/fmon
unset FMON_HOME
cd /
("$program" doctor || true) >"$work/doctor"
grep -q "^ok .*$work/root/etc/fmon/fmon.ini" "$work/doctor" || wrong "another configuration: $(cat "$work/doctor")"
grep -q "^ok .* libfmon.so is there" "$work/doctor" || wrong "no monitor: $(cat "$work/doctor")"
"$program" watch -n 1 -t 20 --log-level 4 -e create "$work/watched" >"$work/events" 2>"$work/talk" &
watch=$!
until grep -q watching "$work/talk"; do
    kill -0 $watch || wrong "$(cat "$work/talk")"
    sleep 0.05
done
: >"$work/watched/file"
wait $watch || wrong "$(cat "$work/talk")"
grep -q "create.*$work/watched/file" "$work/events" || wrong "no event"
[ "$(id -u)" != 0 ] || [ -s "$work/root/var/log/fmon/fmon.log" ] || wrong "no log in var/log/fmon"

# ---- purged ----

if [ $installed = 1 ]; then
    mkdir "$work/root/run/fmon"
    administer --purge fmon
    files >"$work/after"
    diff "$work/before" "$work/after" >&2 || wrong "the purge left something, or took what is not its own"
fi

if command -v lintian >/dev/null; then
    lintian --allow-root --fail-on error "$work"/out/*.deb >"$work/talk" 2>&1 || wrong "$(cat "$work/talk")"
fi
