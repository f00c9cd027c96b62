# Distribution packages: which are missing, and how they are installed.
# shellcheck shell=bash

# What the build and its tests need, as "package probe". A probe asks for the thing, not for the
# package, so a machine that has it from elsewhere is fine: "tool NAME", "header NAME", "module NAME"
# (of pkg-config) or "element NAME" (of GStreamer).
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

# What the GStreamer plugin and its tests need. CMake builds without the plugin where they are missing.
gstreamer_requirements() {
    cat <<'LIST'
libgstreamer1.0-dev module gstreamer-base-1.0
libgstreamer-plugins-base1.0-dev module gstreamer-video-1.0
gstreamer1.0-tools tool gst-inspect-1.0
gstreamer1.0-plugins-base element videoconvert
gstreamer1.0-plugins-good element rtpvrawpay
LIST
}

# What scripts/check needs beyond that.
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

# What scripts/package needs beyond the build.
package_requirements() {
    cat <<'LIST'
dpkg-dev tool dpkg-shlibdeps
file tool file
LIST
}

has_header() {
    printf '#if !__has_include(<%s>)\n#error\n#endif\n' "$1" | g++ -E -x c++ - >/dev/null 2>&1
}

# clang's run-time libraries live in clang's own folder, named for the architecture.
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

# Reads a list of requirements; prints the packages whose probe fails, each once.
missing_packages() {
    local package kind name
    while read -r package kind name; do
        probe "$kind" "$name" </dev/null || printf '%s\n' "$package"
    done | sort -u
}

# Runs a command as the superuser: directly as root, through sudo otherwise.
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

# Whether the package can be installed here without removing another: libtiff's own JPEG library, for
# one, has to stay.
distribution_offers() {
    command -v apt-get >/dev/null 2>&1 && can_be_root \
        && apt-get install --simulate --no-remove "$1" >/dev/null 2>&1
}

# A package list of somebody else that cannot be read must not stop the set-up: what counts is
# whether the packages can be installed afterwards.
refresh_package_lists() {
    [ -z "${package_lists_read-}" ] || return 0
    package_lists_read=yes
    detail "reading the package lists (apt-get update)"
    if ! as_root apt-get update >"$deps_dir/apt-update.log" 2>&1; then
        detail "some package lists could not be read; going on with the others:"
        { grep -E '^(E|W):' "$deps_dir/apt-update.log" || true; } | head -n 5 | sed 's/^/   | /'
    fi
}

# Installs the packages named; prints their names first. Ends the script when that is not possible.
install_packages() {
    local advice="install by hand: $*"
    detail "missing: $*"
    command -v apt-get >/dev/null 2>&1 \
        || fail "these packages are missing, and this machine has no apt-get: $*" \
            "install what corresponds to them with the machine's own package tool, then run this again"
    can_be_root \
        || fail "these packages are missing, and there is neither root nor sudo to install them: $*" \
            "ask the administrator for: apt-get install $*"
    refresh_package_lists
    detail "installing: $*"
    quietly "$deps_dir/apt-install.log" apt_install "$@" \
        || fail "apt-get could not install the packages above" \
            "is the network there? The whole output is in $deps_dir/apt-install.log" "$advice"
}

# Makes sure that every requirement of the list named by the function $1 is met.
ensure_packages() {
    local requirements=$1
    local -a missing
    mapfile -t missing < <("$requirements" | missing_packages)
    if [ "${#missing[@]}" -eq 0 ]; then
        detail "all there"
        return
    fi
    install_packages "${missing[@]}"
    mapfile -t missing < <("$requirements" | missing_packages)
    [ "${#missing[@]}" -eq 0 ] \
        || fail "installed, but still not found: ${missing[*]}" \
            "is another compiler or another tool of that name first in PATH?"
}
