# json11: found on the system, or unpacked into the private prefix.
# shellcheck shell=bash

# Compiles and runs the check against the library under folder $1, or the system's when empty.
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

# The package has a static library, so the header and that one file are all that is needed.
unpack_json11() {
    local unpacked=$deps_dir/json11-unpacked package
    detail "fetching its package from Debian's archive"
    fetch_from_archive download libjson11-1-dev \
        || fail "json11 could not be fetched" "is the network there? Run this again when it is"
    package=$(compgen -G "$archive_dir/files/libjson11-1-dev_*.deb" | head -n 1) \
        || fail "the archive delivered no package of json11"
    rm -rf "$unpacked"
    dpkg-deb -x "$package" "$unpacked" || fail "the package of json11 could not be unpacked"
    mkdir -p "$prefix_dir/include" "$prefix_dir/lib"
    find "$unpacked" -name json11.hpp -exec cp {} "$prefix_dir/include/" \;
    find "$unpacked" -name libjson11.a -exec cp {} "$prefix_dir/lib/" \;
    rm -rf "$unpacked"
}

ensure_json11() {
    if [ -n "${JSON11_ROOT:-}" ]; then
        json11_works_in "$JSON11_ROOT" \
            || fail "JSON11_ROOT=$JSON11_ROOT holds no working json11" \
                "it needs include/json11.hpp and lib/libjson11.a (or .so)"
        detail "in $JSON11_ROOT, as told"
    elif json11_works_in "$prefix_dir"; then
        detail "fetched before, in $prefix_dir"
    elif json11_works_in ""; then
        detail "the system has it"
    elif install_distribution_json11; then
        detail "installed from the distribution (libjson11-1-dev)"
    else
        detail "neither the system nor its distribution has it"
        unpack_json11
        json11_works_in "$prefix_dir" || fail "json11 was unpacked but does not work"
        detail "unpacked into $prefix_dir"
    fi
}
