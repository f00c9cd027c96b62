# Provides libjpeg 9: from the system, or built into the private prefix.
# shellcheck shell=bash

# With these two parameters the compiler generates branch-free sign extension in the Huffman decoder.
# Baseline files then take a fifth less time; the decoded bytes are the same.
jpeg9_flags="-O2 -g -fPIC"
jpeg9_gcc_flags="--param=max-rtl-if-conversion-unpredictable-cost=200"
jpeg9_gcc_flags+=" --param=max-rtl-if-conversion-predictable-cost=200"

# Compiles and runs the check against the library in folder $1, or the system's if $1 is empty.
jpeg9_works_in() {
    local root=${1:-} program=$deps_dir/check-jpeg9
    local -a paths=()
    if [ -n "$root" ]; then
        [ -e "$root/include/jpeglib.h" ] || return 1
        paths=("-I$root/include" "-L$root/lib" "-Wl,-rpath,$root/lib")
    fi
    gcc "${paths[@]}" "$project_dir/cmake/checks/jpeg9.c" -ljpeg -o "$program" >/dev/null 2>&1 \
        && "$program" >/dev/null 2>&1
}

install_distribution_jpeg9() {
    distribution_offers libjpeg9-dev \
        && quietly "$deps_dir/apt-jpeg9.log" apt_install --no-remove libjpeg9-dev \
        && jpeg9_works_in ""
}

build_jpeg9() {
    local source_dir=$deps_dir/jpeg9-source archive
    detail "fetching its source from Debian's archive"
    fetch_from_archive source --tar-only --download-only libjpeg9 \
        || fail "cannot fetch libjpeg 9" "check the network and run this again"
    archive=$(compgen -G "$archive_dir/files/libjpeg9_*.orig.tar.*" | head -n 1) \
        || fail "the download contains no source of libjpeg 9"
    rm -rf "$source_dir"
    mkdir -p "$source_dir"
    tar -xf "$archive" -C "$source_dir" --strip-components=1
    detail "building it (some seconds)"
    (
        cd "$source_dir"
        quietly "$deps_dir/jpeg9-configure.log" ./configure --disable-shared --enable-static --with-pic \
            --disable-dependency-tracking --prefix="$prefix_dir" --libdir="$prefix_dir/lib" CC=gcc \
            CFLAGS="$jpeg9_flags $jpeg9_gcc_flags" \
            && quietly "$deps_dir/jpeg9-make.log" make -j2 libjpeg.la \
            && quietly "$deps_dir/jpeg9-install.log" make install-libLTLIBRARIES \
                install-includeHEADERS install-data-local
    ) || fail "cannot build libjpeg 9" "the logs are $deps_dir/jpeg9-*.log"
    rm -rf "$source_dir" "$prefix_dir/lib/libjpeg.la"
}

ensure_jpeg9() {
    if [ -n "${JPEG9_ROOT:-}" ]; then
        jpeg9_works_in "$JPEG9_ROOT" \
            || fail "JPEG9_ROOT=$JPEG9_ROOT contains no working libjpeg 9" \
                "it needs include/jpeglib.h with JPEG_LIB_VERSION 90 and lib/libjpeg.a (or .so)"
        detail "using $JPEG9_ROOT"
    elif jpeg9_works_in "$prefix_dir"; then
        detail "already built, in $prefix_dir"
    elif jpeg9_works_in ""; then
        detail "installed on the system"
    elif install_distribution_jpeg9; then
        detail "installed from the distribution (libjpeg9-dev)"
    else
        detail "not on the system, and not in the distribution"
        build_jpeg9
        jpeg9_works_in "$prefix_dir" || fail "libjpeg 9 was built but does not work"
        detail "built in $prefix_dir"
    fi
}
