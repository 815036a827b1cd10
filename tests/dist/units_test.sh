#!/usr/bin/env bash
# Verifies the systemd units with systemd-analyze, pointed at the built
# binary and at our man pages, and fails on any complaint.
# Usage: units_test.sh UNIT_SOURCE_DIR QUORPKG_BINARY MAN_DIR
set -uo pipefail
source_dir="$1" quorpkg="$2" man_dir="$3"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/units" "$work/man/man8"
ln -s "$man_dir/quorpkg.8" "$work/man/man8/quorpkg.8"
for unit in "$source_dir"/*; do
    name=$(basename "$unit" .in)
    sed "s#@QUORPKG_BINARY@#$quorpkg#g" "$unit" >"$work/units/$name"
done
grep -q "^ExecStart=$quorpkg onoffall start boot$" "$work/units/quorpkg.service" || exit 1
grep -q "^ExecStop=$quorpkg onoffall stop shutdown$" "$work/units/quorpkg.service" || exit 1
grep -q "^ExecStart=$quorpkg chkupgradepkg$" "$work/units/quorpkg-upgrade.service" || exit 1
complaints=$(MANPATH="$work/man" systemd-analyze verify "$work"/units/* 2>&1)
status=$?
if [ "$status" -ne 0 ] || [ -n "$complaints" ]; then
    echo "systemd-analyze verify: status $status"
    echo "$complaints"
    exit 1
fi
echo "units verified"
