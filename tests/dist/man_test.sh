#!/usr/bin/env bash
# Formats every man page with warnings on and fails on any warning; checks
# that quorpkg(8) and zpk(1) describe every command the binaries offer.
# Usage: man_test.sh MAN_DIR QUORPKG_BINARY ZPK_BINARY
set -uo pipefail
man_dir="$1" quorpkg="$2" zpk="$3"
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

for page in "$man_dir"/*.[1-8]; do
    warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "$page: $warnings"
done

# The command words, from the binaries' own usage texts.
rendered=$(MANWIDTH=80 man -l "$man_dir/quorpkg.8" 2>/dev/null)
words=$("$quorpkg" | sed -n 's/^  \([a-z_-][a-z_-]*\).*/\1/p')
[ -n "$words" ] || fail "no command words in the usage text of $quorpkg"
for word in $words; do
    grep -qE "^ {7}(.*, )?$word( |,|$)" <<<"$rendered" || fail "quorpkg.8 does not describe $word"
done
rendered=$(MANWIDTH=80 man -l "$man_dir/zpk.1" 2>/dev/null)
words=$("$zpk" --help | sed -n 's/^  zpk \([a-z]*\).*/\1/p')
[ -n "$words" ] || fail "no command words in the usage text of $zpk"
for word in $words; do
    grep -qE "^ {7}$word( |$)" <<<"$rendered" || fail "zpk.1 does not describe $word"
done

[ "$failures" -eq 0 ] || exit 1
echo "man pages checked"
