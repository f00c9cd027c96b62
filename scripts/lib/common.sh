# Shared by every script here: where the project is, and how the scripts speak.
# shellcheck shell=bash
# shellcheck disable=SC2034  # the variables are for the scripts that source this file

project_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
deps_dir=$project_dir/.deps
prefix_dir=$deps_dir/prefix

# One line for a step that begins; details of the step are indented under it.
step() {
    printf '== %s\n' "$*"
}

detail() {
    printf '   %s\n' "$*"
}

# Ends the script. The first argument says what went wrong, each further one what to do about it.
fail() {
    printf '\n%s: %s\n' "${0##*/}" "$1" >&2
    shift
    local advice
    for advice in "$@"; do
        printf '   %s\n' "$advice" >&2
    done
    exit 1
}

# Runs a command quietly: its output goes to the log named first and is shown only when it fails.
quietly() {
    local log=$1
    shift
    if ! "$@" >"$log" 2>&1; then
        printf '   this failed: %s\n' "$*" >&2
        tail -n 40 "$log" | sed 's/^/   | /' >&2
        return 1
    fi
}
