# shellcheck shell=sh
# Debian packages of any suite and architecture without touching the machine's own package lists: apt with a directory of
# its own for each pair. Proxies and keys are the machine's. Sourced; the functions talk on stderr and return 1 with
# a reason where something cannot be had.

note() { printf '%s\n' "$*" >&2; }

# Where the machine itself gets Debian from. apt is asked, so that it does not matter how the sources are written down.
mirror() {
    if [ -n "${FMON_DEBIAN_MIRROR:-}" ]; then
        echo "$FMON_DEBIAN_MIRROR"
        return
    fi
    codename=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release 2>/dev/null)
    # The address that carries this release's 'main'; one that ends in /debian rather than one that comes first.
    uri=$(apt-get update --print-uris 2>/dev/null | tr -d "'" |
        awk -v rest="/dists/$codename/main/binary-.*" '
            sub(rest, "", $1) { if (first == "") first = $1; if (named == "" && $1 ~ /\/debian$/) named = $1 }
            END { print (named != "" ? named : first) }')
    if [ -z "$uri" ]; then
        note "  apt's sources name no 'main' of Debian $codename; set FMON_DEBIAN_MIRROR to the address of a mirror"
        return 1
    fi
    echo "$uri"
}

# apt_tree DIR SUITE ARCH: lays out DIR, with its configuration in DIR/apt.conf.
apt_tree() {
    keyring=/usr/share/keyrings/debian-archive-keyring.gpg
    options="arch=$3"
    [ ! -e "$keyring" ] || options="$options signed-by=$keyring"
    from=$(mirror) || return 1
    mkdir -p "$1/lists/partial" "$1/cache/archives/partial" "$1/deb" "$1/none"
    : >"$1/status"
    printf 'deb [%s] %s %s main\n' "$options" "$from" "$2" >"$1/sources.list"
    # The machine's hooks are for its own lists, and its pins for its own packages.
    cat >"$1/apt.conf" <<END
#clear APT::Update::Pre-Invoke;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
#clear APT::Architectures;
APT::Architecture "$3";
APT::Architectures { "$3"; };
APT::Sandbox::User "$(id -un)";
APT::Update::Error-Mode "any";
Acquire::Languages "none";
Acquire::Retries "2";
Acquire::http::Timeout "30";
Acquire::https::Timeout "30";
Dir::State "$1";
Dir::State::lists "$1/lists";
Dir::State::status "$1/status";
Dir::Cache "$1/cache";
Dir::Etc::sourcelist "$1/sources.list";
Dir::Etc::sourceparts "$1/none";
Dir::Etc::preferences "$1/none/preferences";
Dir::Etc::preferencesparts "$1/none";
END
}

# Package lists older than a day are fetched anew. What fails here may still be in the directory of an earlier run.
apt_update() {
    [ -z "$(find "$1/updated" -mtime -1 2>/dev/null)" ] || return 0
    if apt-get -c "$1/apt.conf" -q update >"$1/update.log" 2>&1; then
        touch "$1/updated"
    else
        note "  no new package lists of $2 ($3): $(grep -m 1 '^E: ' "$1/update.log" || tail -n 1 "$1/update.log")"
    fi
}

# newest_package DIR REGEX: the name of the newest package that matches.
newest_package() { apt-cache -c "$1/apt.conf" pkgnames 2>/dev/null | grep -xE "$2" | sort -V | tail -n 1; }

# newest_file DIR REGEX: the newest matching package file that is there already.
newest_file() {
    for file in "$1"/deb/*.deb; do
        [ ! -e "$file" ] || printf '%s\n' "${file##*/}"
    done | grep -E "^($2)_" | sort -V | tail -n 1 | sed "s|^|$1/deb/|"
}

# download DIR PACKAGE: prints the package's file, fetched unless it is there.
download() {
    name=$(apt-get -c "$1/apt.conf" download --print-uris "$2" 2>/dev/null | awk '{ print $2 }')
    [ -n "$name" ] || return 1
    if [ ! -e "$1/deb/$name" ]; then
        note "  fetching $name"
        (cd "$1/deb" && apt-get -c "$1/apt.conf" -q download "$2" >"$1/download.log" 2>&1) || {
            note "  $name could not be fetched: $(grep -m 1 '^E: ' "$1/download.log" || tail -n 1 "$1/download.log")"
            return 1
        }
    fi
    printf '%s\n' "$1/deb/$name"
}

# package_file DIR SUITE ARCH REGEX: prints the file of the newest package that matches and can be had.
package_file() {
    apt_tree "$1" "$2" "$3" || return 1
    apt_update "$1" "$2" "$3"
    newest=$(newest_package "$1" "$4")
    found=
    [ -z "$newest" ] || found=$(download "$1" "$newest") || found=
    [ -n "$found" ] || found=$(newest_file "$1" "$4")
    if [ -z "$found" ]; then
        why="no package lists"
        [ ! -e "$1/updated" ] || why="no package of that name"
        [ -z "$newest" ] || why="the mirror does not hand out $newest"
        note "  nothing for '$4' in $2 ($3): $why"
        return 1
    fi
    printf '%s\n' "$found"
}
