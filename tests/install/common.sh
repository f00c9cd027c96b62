# Shared by the install tests.
# shellcheck shell=bash
# shellcheck disable=SC2034  # the variables are for the scripts that source this file

: "${SOURCE_DIR:?}" "${BUILD_DIR:?}" "${STILLIMAGE:?}" "${STILLIMAGE_CLIENT:?}"

faults=0
fault() {
    printf 'fault: %s\n' "$*"
    faults=$((faults + 1))
}

# expect_same WHAT EXPECTED FOUND
expect_same() {
    [ "$2" = "$3" ] && return
    fault "$1"
    diff <(printf '%s\n' "$2") <(printf '%s\n' "$3") | sed 's/^/    /'
}

finish() {
    [ "$faults" -eq 0 ] || exit 1
}

scratch=$(mktemp -d)
remove_scratch() {
    rm -rf "$scratch"
}
trap remove_scratch EXIT
