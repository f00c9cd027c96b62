# Provides json11: from the system, or unpacked into the private prefix.
# shellcheck shell=bash

# Compiles and runs the check against the library in folder $1, or the system's if $1 is empty.
json11_works_in() {
    local root=${1:-} program=$deps_dir/check-json11
    local -a paths=()
    if [ -n "$root" ]; then
        [ -e "$root/include/json11.hpp" ] || return 1
        paths=("-I$root/include" "-L$root/lib" "-Wl,-rpath,$root/lib")
    fi
    g++ -std=c++20 "${paths[@]}" "$project_dir/cmake/checks/json11.cpp" -ljson11 -o "$program" \
        >/dev/null 2>&1 && "$program"
}

install_distribution_json11() {
    distribution_offers libjson11-1-dev \
        && quietly "$deps_dir/apt-json11.log" apt_install --no-remove libjson11-1-dev \
        && json11_works_in ""
}

# The package contains a static library, so only the header and that file are needed.
unpack_json11() {
    local unpacked=$deps_dir/json11-unpacked package
    detail "fetching its package from Debian's archive"
    fetch_from_archive download libjson11-1-dev \
        || fail "cannot fetch json11" "check the network and run this again"
    package=$(compgen -G "$archive_dir/files/libjson11-1-dev_*.deb" | head -n 1) \
        || fail "the download contains no package of json11"
    rm -rf "$unpacked"
    dpkg-deb -x "$package" "$unpacked" || fail "cannot unpack the package of json11"
    mkdir -p "$prefix_dir/include" "$prefix_dir/lib"
    find "$unpacked" -name json11.hpp -exec cp {} "$prefix_dir/include/" \;
    find "$unpacked" -name libjson11.a -exec cp {} "$prefix_dir/lib/" \;
    rm -rf "$unpacked"
}

ensure_json11() {
    if [ -n "${JSON11_ROOT:-}" ]; then
        json11_works_in "$JSON11_ROOT" \
            || fail "JSON11_ROOT=$JSON11_ROOT contains no working json11" \
                "it needs include/json11.hpp and lib/libjson11.a (or .so)"
        detail "using $JSON11_ROOT"
    elif json11_works_in "$prefix_dir"; then
        detail "already fetched, in $prefix_dir"
    elif json11_works_in ""; then
        detail "installed on the system"
    elif install_distribution_json11; then
        detail "installed from the distribution (libjson11-1-dev)"
    else
        detail "not on the system, and not in the distribution"
        unpack_json11
        json11_works_in "$prefix_dir" || fail "json11 was unpacked but does not work"
        detail "unpacked into $prefix_dir"
    fi
}
