#!/usr/bin/env bash
# Each component installs its own files and no others; together they are a full installation.
set -euo pipefail
# shellcheck source=tests/install/common.sh
source "$(dirname "$0")/common.sh"

variable() {
    sed -n "s/^$1:[A-Z]*=//p" "$BUILD_DIR/CMakeCache.txt"
}
libdir=$(variable CMAKE_INSTALL_LIBDIR)
build_type=$(variable CMAKE_BUILD_TYPE)

# files_of PREFIX: the files installed there, sorted.
files_of() {
    (cd "$1" && find . ! -type d | sed 's,^\./,,' | sort)
}

install_component() {
    cmake --install "$BUILD_DIR" --prefix "$scratch/$1" --component "$1" >/dev/null
}

# expect_component NAME: expects the files that standard input lists.
expect_component() {
    install_component "$1"
    expect_same "files of the component $1" "$(sort)" "$(files_of "$scratch/$1")"
}

expect_component worker <<LIST
bin/stillimage
lib/systemd/system/stillimage.slice
lib/systemd/system/stillimage@.service
lib/systemd/user/stillimage.slice
lib/systemd/user/stillimage@.service
lib/sysusers.d/stillimage.conf
share/bash-completion/completions/stillimage
share/doc/stillimage/LICENSE
share/doc/stillimage/NEWS.md
share/doc/stillimage/README.md
share/doc/stillimage/SECURITY.md
$(cd "$SOURCE_DIR" && printf 'share/doc/stillimage/%s\n' docs/*.md docs/images/*.png)
share/doc/stillimage/examples/README.md
share/doc/stillimage/examples/frames.cpp
share/doc/stillimage/examples/harvesters.jpeg
share/doc/stillimage/examples/picture.py
share/doc/stillimage/examples/watch.c
share/doc/stillimage/examples/waving.gif
share/man/man1/stillimage.1
share/man/man5/stillimage-metadata.5
share/man/man5/stillimage-scanline.5
LIST

expect_component client <<'LIST'
bin/stillimage-client
share/bash-completion/completions/stillimage-client
share/man/man1/stillimage-client.1
LIST

expect_component runtime <<LIST
$libdir/libstillimage_client.so.1
$libdir/libstillimage_client.so.1.1.0
LIST

install_component development
for file in include/stillimage_client.h "$libdir/libstillimage_client.a" \
    "$libdir/libstillimage_client.so" "$libdir/pkgconfig/stillimage-client.pc" \
    "$libdir/cmake/stillimage_client/stillimage_client-config.cmake" \
    "$libdir/cmake/stillimage_client/stillimage_client-config-version.cmake" \
    "$libdir/cmake/stillimage_client/stillimage_client-targets.cmake" \
    "$libdir/cmake/stillimage_client/stillimage_client-targets-${build_type,,}.cmake" \
    share/man/man3/stillimage_client.3; do
    [ -e "$scratch/development/$file" ] || [ -L "$scratch/development/$file" ] \
        || fault "the component development lacks $file"
done
unexpected=$(files_of "$scratch/development" | grep -Ev "^(include/|$libdir/|share/man/man3/)" || true)
expect_same "files of development in unexpected places" "" "$unexpected"

# --- all of it --------------------------------------------------------------------------------------

install_component gst # empty when the plugin is not built
mkdir -p "$scratch/gst"
cmake --install "$BUILD_DIR" --prefix "$scratch/all" >/dev/null
expect_same "a full installation" \
    "$(for component in worker client runtime development gst; do
        files_of "$scratch/$component"
    done | sort)" "$(files_of "$scratch/all")"
source_files=$(grep -rlF "$SOURCE_DIR" "$scratch/all/$libdir/cmake" "$scratch/all/$libdir/pkgconfig" \
    "$scratch/all/share" "$scratch/all/lib/systemd" || true)
expect_same "files that name the source folder" "" "$source_files"

finish
