#!/bin/sh
# package.sh PACKAGES STAGE SOURCE_DIR: what is in the Debian packages of that directory, that the command works from where it
# was unpacked, that a purge leaves nothing. With lintian, that this finds no error and warns of nothing.
set -eu
packages=$1 stage=$2 source_dir=$3
umask 077
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
wrong() {
    echo "$1" >&2
    exit 1
}

mkdir "$work/root" "$work/watched"
package_of() { find "$packages" -name "$1_*.deb" | grep . || wrong "no package $1"; }
package=$(package_of fmon) library=$(package_of libfmon1) development=$(package_of libfmon-dev)
public=usr/lib/$(dpkg-architecture -q DEB_HOST_MULTIARCH)

# ---- what is in it ----

# Files and directories are root's, and everybody's to read, but for the log.
check_rights() {
    dpkg-deb -c "$1" >"$work/list"
    ! grep -v ' \./var/log/fmon/$' "$work/list" | grep -vE '^(drwxr-xr-x|-rw-r--r--|-rwxr-xr-x|lrwxrwxrwx) root/root ' ||
        wrong "$1: not everybody's to read, or not root's"
    ! awk '{ print $6 }' "$work/list" | grep -vE '^\./(etc|usr|var|var/log|usr/(bin|lib|share))?/?$' | grep -vE "^\./($2)" ||
        wrong "$1: not a place of the system's"
}
# All of these files are in the package looked at last: `has FILE...`
has() { for file; do grep -qE " \./$file( ->.*)?$" "$work/list" || wrong "$file is missing"; done; }

check_rights "$library" "$public|usr/lib/fmon|usr/share/doc"
has "$public/libfmon.so.1" usr/lib/fmon/libfmon.so usr/lib/fmon/liborx_base.so usr/share/doc/libfmon1/copyright
check_rights "$development" "$public|usr/include/|usr/share/(doc|man)"
has usr/include/fmon/orx_fmon.h "$public/libfmon.so" "$public/pkgconfig/libfmon.pc" usr/share/man/man3/libfmon.3.gz
check_rights "$package" 'etc/fmon|usr/bin/fmon$|usr/lib/systemd|usr/share/(man|doc|lintian|bash-completion|zsh|fish)|var/log/fmon'
grep -q '^drwxr-x--- root/root .* \./var/log/fmon/$' "$work/list" || wrong "the log is everybody's to read"
has etc/fmon/fmon.ini etc/fmon/fmon.toml usr/bin/fmon usr/lib/systemd/system/fmon.service usr/share/doc/fmon/copyright \
    usr/share/man/man1/fmon.1.gz usr/share/man/man5/fmon.ini.5.gz usr/share/man/man5/fmon.toml.5.gz \
    usr/share/bash-completion/completions/fmon usr/share/zsh/site-functions/_fmon usr/share/fish/vendor_completions.d/fmon.fish

# ---- manual pages: every verb, key and function ----

for verb in $("$stage/bin/fmon" --help | sed -n 's/^  \([a-z]*\)  .*/\1/p'); do has "usr/share/man/man1/fmon-$verb.1.gz"; done
sed -n 's/^[; ]*\([a-z_]*\) = [0-9]*$/\1/p' "$source_dir/config/fmon.ini" >"$work/keys"
while read -r key; do
    grep -q "^\.It Cm $key No = " "$source_dir/docs/fmon.ini.5" || wrong "fmon.ini(5) lacks $key"
done <"$work/keys"
for name in $(tr '\n' ' ' <"$source_dir/include/orx_fmon.h" | grep -oE 'FMON_API [a-z0-9_ *]*[ *]([a-z0-9_]+)[(;]' | sed 's/.*[ *]//; s/[(;]//'); do
    grep -qE "^\.(Fn|Fo|Vt .* Va) $name( |$)" "$source_dir/docs/libfmon.3" || wrong "libfmon(3) lacks $name"
done

# ---- plug-ins, in packages of their own ----

! grep -q libfmon- "$work/list" || wrong "a plug-in in the package that everybody installs"
for bus in nats kafka; do
    [ -e "$stage/lib/libfmon-$bus.so" ] || continue
    plug_in=$(package_of "fmon-$bus")
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
    administer -i "$library" "$package"
else
    installed=0
    for part in "$library" "$package"; do dpkg -x "$part" "$work/root"; done
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
    administer --purge fmon libfmon1
    files >"$work/after"
    diff "$work/before" "$work/after" >&2 || wrong "the purge left something, or took what is not its own"
fi

if command -v lintian >/dev/null; then
    lintian --allow-root --fail-on error,warning "$packages"/*.deb >"$work/talk" 2>&1 || wrong "$(cat "$work/talk")"
fi
