# Finds and installs missing distribution packages.
# shellcheck shell=bash

# Requirements of the build and its tests, as "package probe". A probe looks for the program or file
# rather than the package, so it may come from elsewhere: "tool NAME", "header NAME", "module NAME"
# (pkg-config), "element NAME" (GStreamer) or "clang-library NAME".
build_requirements() {
    cat <<'LIST'
g++ tool g++
libc6-dev header stdio.h
make tool make
cmake tool cmake
ninja-build tool ninja
pkg-config tool pkg-config
zlib1g-dev header zlib.h
libpng-dev header png.h
libtiff-dev header tiffio.h
libgif-dev header gif_lib.h
libwebp-dev header webp/decode.h
libseccomp-dev header seccomp.h
libgtest-dev header gtest/gtest.h
libgmock-dev header gmock/gmock.h
libbenchmark-dev header benchmark/benchmark.h
libcli11-dev header CLI/CLI.hpp
systemd tool systemd-analyze
groff-base tool groff
ffmpeg tool ffmpeg
mpv tool mpv
python3 tool python3
LIST
}

# Requirements of the GStreamer plugin and its tests. CMake skips the plugin if they are missing.
gstreamer_requirements() {
    cat <<'LIST'
libgstreamer1.0-dev module gstreamer-base-1.0
libgstreamer-plugins-base1.0-dev module gstreamer-video-1.0
gstreamer1.0-tools tool gst-inspect-1.0
gstreamer1.0-plugins-base element videoconvert
gstreamer1.0-plugins-good element rtpvrawpay
LIST
}

# Additional requirements of scripts/check.
check_requirements() {
    cat <<'LIST'
clang tool clang++
clang-format tool clang-format
clang-tidy tool clang-tidy
libclang-rt-14-dev clang-library libclang_rt.fuzzer
llvm tool llvm-symbolizer
shellcheck tool shellcheck
binutils tool nm
mandoc tool mandoc
lintian tool lintian
LIST
}

# Additional requirements of scripts/package.
package_requirements() {
    cat <<'LIST'
dpkg-dev tool dpkg-shlibdeps
file tool file
LIST
}

has_header() {
    printf '#if !__has_include(<%s>)\n#error\n#endif\n' "$1" | g++ -E -x c++ - >/dev/null 2>&1
}

# clang's run-time libraries are in clang's own folder; their names end with the architecture.
has_clang_library() {
    local folder
    folder=$(clang++ -print-resource-dir 2>/dev/null) || return 1
    compgen -G "$folder/lib/linux/$1*" >/dev/null
}

probe() {
    case $1 in
        tool) command -v "$2" >/dev/null ;;
        header) has_header "$2" ;;
        clang-library) has_clang_library "$2" ;;
        module) pkg-config --exists "$2" 2>/dev/null ;;
        element) gst-inspect-1.0 --exists "$2" >/dev/null 2>&1 ;;
        *) fail "unknown probe '$1' in the list of packages" ;;
    esac
}

# Reads a list of requirements and prints each package whose probe fails, once.
missing_packages() {
    local package kind name
    while read -r package kind name; do
        probe "$kind" "$name" </dev/null || printf '%s\n' "$package"
    done | sort -u
}

# Runs a command as root, with sudo if necessary.
as_root() {
    if [ "$(id -u)" = 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

can_be_root() {
    [ "$(id -u)" = 0 ] || command -v sudo >/dev/null 2>&1
}

apt_install() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$@"
}

# Whether the package can be installed without removing another one. libtiff's own JPEG library, for
# example, must stay.
distribution_offers() {
    command -v apt-get >/dev/null 2>&1 && can_be_root \
        && apt-get install --simulate --no-remove "$1" >/dev/null 2>&1
}

# An unreadable package list does not stop the set-up: it may belong to a third party. The installation
# afterwards fails if a package is really unavailable.
refresh_package_lists() {
    [ -z "${package_lists_read-}" ] || return 0
    package_lists_read=yes
    detail "reading the package lists (apt-get update)"
    if ! as_root apt-get update >"$deps_dir/apt-update.log" 2>&1; then
        detail "cannot read some package lists; continuing with the others:"
        { grep -E '^(E|W):' "$deps_dir/apt-update.log" || true; } | head -n 5 | sed 's/^/   | /'
    fi
}

# Prints the names of the given packages and installs them. Ends the script on failure.
install_packages() {
    local advice="or install by hand: $*"
    detail "missing: $*"
    command -v apt-get >/dev/null 2>&1 \
        || fail "these packages are missing, and this machine has no apt-get: $*" \
            "install the equivalent packages with the system's package manager, then run this again"
    can_be_root \
        || fail "these packages are missing, and installing them needs root or sudo: $*" \
            "ask the administrator to run: apt-get install $*"
    refresh_package_lists
    detail "installing: $*"
    quietly "$deps_dir/apt-install.log" apt_install "$@" \
        || fail "apt-get could not install the packages above" \
            "check the network; the complete output is in $deps_dir/apt-install.log" "$advice"
}

# Installs what is missing of the list that the function $1 prints.
ensure_packages() {
    local requirements=$1
    local -a missing
    mapfile -t missing < <("$requirements" | missing_packages)
    if [ "${#missing[@]}" -eq 0 ]; then
        detail "all installed"
        return
    fi
    install_packages "${missing[@]}"
    mapfile -t missing < <("$requirements" | missing_packages)
    [ "${#missing[@]}" -eq 0 ] \
        || fail "installed, but still not found: ${missing[*]}" \
            "check whether PATH finds another compiler or another tool of that name first"
}
