# Fetches from other suites of Debian's archive through a private apt root. apt checks signatures and
# hashes as usual; the system's own lists and configuration are not changed.
# shellcheck shell=bash
# shellcheck disable=SC2016  # $(REPO_URI) and the like are apt's notation

archive_dir=$deps_dir/archive
archive_keyring=/usr/share/keyrings/debian-archive-keyring.gpg
archive_address=${STILLIMAGE_DEBIAN_ARCHIVE:-}

# The base address of the archive that this machine's own apt uses for the running release.
find_archive_address() {
    local codename
    codename=$(. /etc/os-release && printf '%s' "${VERSION_CODENAME:-}")
    apt-get indextargets --format '$(REPO_URI) $(CODENAME) $(ORIGIN) $(COMPONENT)' 2>/dev/null \
        | awk -v codename="$codename" '$2 == codename && $3 == "Debian" && $4 == "main" {print $1; exit}'
}

# The same for a system whose package lists were never fetched, or were deleted to save space: without
# lists apt has no release information.
find_archive_address_without_lists() {
    local codename
    codename=$(. /etc/os-release && [ "${ID:-}" = debian ] && printf '%s' "${VERSION_CODENAME:-}") || return 0
    apt-get indextargets --no-release-info --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 2>/dev/null \
        | awk -v codename="$codename" '($2 == codename || $2 == "stable") && $3 == "main" {print $1; exit}'
}

archive_apt() {
    local tool=$1
    shift
    "$tool" \
        -o Dir::Etc::sourcelist="$archive_dir/sources.list" \
        -o Dir::Etc::sourceparts=- \
        -o Dir::Etc::preferences=/dev/null \
        -o Dir::Etc::preferencesparts=- \
        -o Dir::State::lists="$archive_dir/lists" \
        -o Dir::Cache="$archive_dir/cache" \
        -o Acquire::Languages=none \
        -o APT::Update::Error-Mode=any \
        -o APT::Sandbox::User="$(id -un)" \
        "$@"
}

# Sets up the private apt root, once per run of the script. Ends the script on failure.
open_archive() {
    [ ! -e "$archive_dir/ready" ] || return 0
    local by_hand="or install the library by hand and name its folder: see scripts/setup --help"
    command -v apt-get >/dev/null 2>&1 \
        || fail "fetching from Debian's archive needs apt-get, which this machine lacks" "$by_hand"
    [ -r "$archive_keyring" ] \
        || fail "$archive_keyring is missing, so downloads could not be verified" \
            "install the package debian-archive-keyring, $by_hand"
    [ -n "$archive_address" ] || archive_address=$(find_archive_address)
    [ -n "$archive_address" ] || archive_address=$(find_archive_address_without_lists)
    [ -n "$archive_address" ] \
        || fail "the address of Debian's archive is unknown: this machine's apt does not use it" \
            "set STILLIMAGE_DEBIAN_ARCHIVE to the base address of a Debian archive," "$by_hand"
    rm -rf "$archive_dir"
    mkdir -p "$archive_dir/lists/partial" "$archive_dir/cache/archives/partial" "$archive_dir/files"
    printf '%s [signed-by=%s] %s %s main\n' \
        deb-src "$archive_keyring" "$archive_address" sid \
        deb "$archive_keyring" "$archive_address" bullseye >"$archive_dir/sources.list"
    detail "reading the indexes of Debian's archive into a private apt root (about 20 MB)"
    quietly "$archive_dir/update.log" archive_apt apt-get update \
        || fail "cannot read the indexes of Debian's archive" \
            "check the network and run this again, $by_hand"
    touch "$archive_dir/ready"
}

# Downloads with the given apt-get command into $archive_dir/files.
fetch_from_archive() {
    open_archive
    (cd "$archive_dir/files" && quietly "$archive_dir/fetch.log" archive_apt apt-get "$@")
}

# Removes the indexes, which are of no use after the run. Built libraries stay.
close_archive() {
    rm -rf "$archive_dir"
}
