#!/usr/bin/env bash
# Calls the bash completion functions of quorpkg and zpk as bash would and
# checks the words they offer. Usage: completion_test.sh COMPLETION_DIR
set -uo pipefail
completions="$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

export QUOR_ROOT="$work/root"
mkdir -p "$QUOR_ROOT/var/packages/alpha" "$QUOR_ROOT/var/packages/beta" \
    "$QUOR_ROOT/var/packages/.alpha.new" "$QUOR_ROOT/volume1" "$QUOR_ROOT/volume2"
touch "$QUOR_ROOT/var/packages/stray-file"
mkdir -p "$work/files/src/package"
touch "$work/files/a.zpk" "$work/files/b.zpk" "$work/files/notes.txt" "$work/files/root1.key" \
    "$work/files/root1.pub" "$work/files/1.root.draft"
cd "$work/files"

# shellcheck source=/dev/null
source "$completions/quorpkg"
# shellcheck source=/dev/null
source "$completions/zpk"

# expect FUNCTION "EXPECTED WORDS" WORD...: completes the last word.
expect() {
    local function="$1" expected="$2"
    shift 2
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    "$function"
    local got
    got=$(printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' ' | sed 's/ $//')
    if [ "$got" != "$expected" ]; then
        echo "FAIL: $* -> [$got], expected [$expected]"
        failures=$((failures + 1))
    fi
}

# Command words.
expect _quorpkg "start start-depend status stop stop-depend" quorpkg st
expect _quorpkg "install install_from_server is_onoff" quorpkg i
# Installed packages (never staging folders or stray files) where a command takes one.
for command in start stop restart status is_onoff pause resume version log checkupdate; do
    expect _quorpkg "alpha beta" quorpkg "$command" ""
done
expect _quorpkg "alpha" quorpkg uninstall beta a
expect _quorpkg "" quorpkg start alpha ""
expect _quorpkg "skipupgradecheck" quorpkg pause alpha ""
expect _quorpkg "alpha beta" quorpkg list --name --depend-on ""
expect _quorpkg "--depend-on" quorpkg list --d
# Package files and folders for the commands that read package files.
expect _quorpkg "a.zpk b.zpk src" quorpkg install ""
expect _quorpkg "a.zpk" quorpkg query a
expect _quorpkg "a.zpk b.zpk src" quorpkg sort_zpk_by_dep_order a.zpk ""
# Fixed words.
expect _quorpkg "start stop" quorpkg onoffall ""
expect _quorpkg "pgsql" quorpkg stop-depend ""
expect _quorpkg "/volume1 /volume2" quorpkg install_from_server alpha ""
# No packages installed: nothing to offer.
QUOR_ROOT="$work/empty" expect _quorpkg "" quorpkg start ""

expect _zpk "check contents" zpk c
expect _zpk "--help --version" zpk --
expect _zpk "--output" zpk build src --o
expect _zpk "src" zpk build ""
expect _zpk "a.zpk b.zpk src" zpk build src -o ""
expect _zpk "a.zpk b.zpk src" zpk contents ""
expect _zpk "src" zpk index ""
# The publisher's verbs: their second words, options, and the keys each option
# takes (public when drafting a root, private when signing).
expect _zpk "release root" zpk r
expect _zpk "next sign" zpk root ""
expect _zpk "--drop-publisher" zpk root next src --dr
expect _zpk "--threshold --timestamp-key" zpk source new src --t
expect _zpk "root1.pub src" zpk source new src --catalog-key ""
expect _zpk "root1.key src" zpk release src --timestamp-key ""
expect _zpk "1.root.draft src" zpk root sign ""
expect _zpk "root1.key src" zpk root sign 1.root.draft ""
expect _zpk "" zpk verify src --root ""

if [ "$failures" -ne 0 ]; then
    echo "$failures completion checks failed"
    exit 1
fi
echo "completion checks passed"
