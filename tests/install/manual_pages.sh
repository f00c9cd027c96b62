#!/usr/bin/env bash
# The manual pages are well-formed, and document every switch, call and function.
set -euo pipefail
# shellcheck source=tests/install/common.sh
source "$(dirname "$0")/common.sh"
cd "$SOURCE_DIR/docs/man"
if ! command -v groff >/dev/null; then
    echo "skipped: groff (package groff-base) is missing"
    exit 0
fi

# The page as plain text with long lines, without overstriking.
plain() {
    groff -mdoc -rLL=2000n -Tascii -P-cbou "$1" | tr -s ' '
}

# expect_words PAGE WHAT WORD...: expects each in the page as a separate word.
expect_words() {
    local page=$1 what=$2 text word count=0
    shift 2
    text=$(plain "$page")
    for word in "$@"; do
        count=$((count + 1))
        grep -Eq -- "(^|[^[:alnum:]_-])$word([^[:alnum:]_-]|$)" <<<"$text" \
            || fault "$page does not mention the $what $word"
    done
    [ "$count" -gt 5 ] || fault "only $count names to look for in $page"
}

for page in *.[1-8]; do
    warnings=$(groff -ww -mdoc -Tutf8 -z "$page" 2>&1)
    expect_same "groff warns of $page" "" "$warnings"
    if command -v mandoc >/dev/null; then
        # References to pages that are not installed are not a fault.
        warnings=$(mandoc -T lint -W style "$page" 2>/dev/null | grep -v 'referenced manual not found' || true)
        expect_same "mandoc warns of $page" "" "$warnings"
    fi
done

help=$("$STILLIMAGE" --help 2>&1 || true)
mapfile -t switches < <(sed -n 's/^ \(--[a-z-]*\).*/\1/p' <<<"$help")
expect_words stillimage.1 switch "${switches[@]}"

help=$("$STILLIMAGE_CLIENT" --help)
mapfile -t calls < <(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\).*/\1/p' <<<"$help")
expect_words stillimage-client.1 call "${calls[@]}"
for call in "${calls[@]}"; do
    help+=$("$STILLIMAGE_CLIENT" x "$call" --help)
done
mapfile -t switches < <(grep -o -- '--[a-z][a-z-]*' <<<"$help" | sort -u)
expect_words stillimage-client.1 switch "${switches[@]}"

# The functions of the public header, without types.
mapfile -t functions < <(grep -o '\bstillimage_[a-z0-9_]*(' "$SOURCE_DIR/client/stillimage_client.h" \
    | tr -d '(' | sort -u)
expect_words stillimage_client.3 function "${functions[@]}"

finish
