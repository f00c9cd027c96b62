#!/usr/bin/env bash
# The completions that bash proposes for the command lines of the two programs.
set -euo pipefail
# shellcheck source=tests/install/common.sh
source "$(dirname "$0")/common.sh"

# shellcheck source=packaging/completion/stillimage
source "$SOURCE_DIR/packaging/completion/stillimage"
# shellcheck source=packaging/completion/stillimage-client
source "$SOURCE_DIR/packaging/completion/stillimage-client"

# proposed WORD...: the candidates for the last word of a command line, sorted, on one line.
proposed() {
    local function
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    COMPREPLY=()
    function=$(complete -p "$1" | sed 's/.*-F \([^ ]*\) .*/\1/')
    "$function" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}" || true
    printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd ' '
}

expect() {
    local expected=$1
    shift
    expect_same "completion of: $*" "$expected" "$(proposed "$@")"
}

cd "$scratch"
mkdir folder
touch 'a b.jpg' clip.y4m one.png two.ppm

# --- the worker -------------------------------------------------------------------------------------

help=$("$STILLIMAGE" --help 2>&1 || true)
every_switch=$(sed -n 's/^ \(--[a-z-]*\).*/\1/p' <<<"$help; --help" | sort -u | paste -sd ' ')
expect_same "all switches" "$every_switch --help" "$(proposed stillimage -- | sed 's/ --help//') --help"
expect '--metadir' stillimage --m
expect '--file --file-type --force-update-metadata' stillimage --f
expect 'a b.jpg' stillimage --file a
expect 'one.png' stillimage --file = o
expect 'a b.jpg clip.y4m folder one.png two.ppm' stillimage --file =
expect 'folder' stillimage -metadir ''
expect 'image/gif' stillimage --file-type image/g
expect 'off on' stillimage --background-music ''
expect '' stillimage --domain ''
expect '--oneshot' stillimage --file a.png --one

# --- the client -------------------------------------------------------------------------------------

help=$("$STILLIMAGE_CLIENT" --help)
mapfile -t calls < <(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\).*/\1/p' <<<"$help")
[ "${#calls[@]}" -ge 9 ] || fault "the help shows only ${#calls[@]} calls"
expect "$(printf '%s\n' "${calls[@]}" | sort | paste -sd ' ')" stillimage-client sock ''
for call in "${calls[@]}"; do
    switches=$("$STILLIMAGE_CLIENT" x "$call" --help | grep -o -- '--[a-z][a-z-]*' | sort -u \
        | paste -sd ' ')
    expect "$switches" stillimage-client sock "$call" --
done
expect 'a b.jpg' stillimage-client a
expect '--help --version' stillimage-client --
expect 'save set sheet status' stillimage-client sock s
expect 'clip.y4m folder one.png two.ppm' stillimage-client sock save ''
expect 'folder one.png' stillimage-client sock sheet ''
expect 'folder' stillimage-client sock dump ''
expect 'aspect\ ratio' stillimage-client sock set a
expect '' stillimage-client sock set x ''
expect '' stillimage-client sock save out.png --size ''
expect '' stillimage-client sock save out.png --size =
expect '--timeout' stillimage-client sock save out.png --size = 64x48 --t
expect 'one.png' stillimage-client sock save --size 64x48 o
expect '' stillimage-client sock quit ''

finish
