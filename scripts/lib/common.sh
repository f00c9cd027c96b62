# Shared by all scripts: the project's folders, and how scripts report.
# shellcheck shell=bash
# shellcheck disable=SC2034  # the variables are for the scripts that source this file

project_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
deps_dir=$project_dir/.deps
prefix_dir=$deps_dir/prefix

# Prints one line at the start of a step; detail() prints indented lines below it.
step() {
    printf '== %s\n' "$*"
}

detail() {
    printf '   %s\n' "$*"
}

# Ends the script. The first argument says what failed; each further argument says what to do.
fail() {
    printf '\n%s: %s\n' "${0##*/}" "$1" >&2
    shift
    local advice
    for advice in "$@"; do
        printf '   %s\n' "$advice" >&2
    done
    exit 1
}

# quietly LOG COMMAND...: runs the command with its output in the log; prints the log's end on failure.
quietly() {
    local log=$1
    shift
    if ! "$@" >"$log" 2>&1; then
        printf '   failed: %s\n' "$*" >&2
        tail -n 40 "$log" | sed 's/^/   | /' >&2
        return 1
    fi
}
