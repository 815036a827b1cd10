#!/usr/bin/env bash
# Installs a built tree into a staging folder with `cmake --install --strip`
# under its configured prefix and builds the Debian package with cpack;
# checks that both hold every file in its usual place, stripped binaries,
# units that systemd accepts and that name the binary under their prefix
# (/usr in the package, whatever the build's prefix), and of the package:
# the computed Depends, lintian without errors or unexplained warnings, and
# (as root on CI, whose machine is thrown away) that dpkg -i and dpkg -r
# leave the directories of other packages alone.
# Usage: scripts/check-package.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
cmake --build "$build" -j"$(nproc)" >/dev/null

# Paths below the prefix.
expected=(
  bin/quorpkg bin/zpk
  share/man/man8/quorpkg.8.gz share/man/man1/zpk.1.gz share/man/man5/quorpkg-package.5.gz
  share/bash-completion/completions/quorpkg share/bash-completion/completions/zpk
  lib/systemd/system/quorpkg.service lib/systemd/system/quorpkg-upgrade.service
  lib/systemd/system/quorpkg-upgrade.timer
  share/doc/quorpkg/README.md share/doc/quorpkg/package-format.md
  share/doc/quorpkg/first-package.md share/doc/quorpkg/examples/settings
  share/doc/quorpkg/copyright share/doc/quorpkg/changelog.Debian.gz
  share/lintian/overrides/quorpkg
)
failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# check_tree DIR PREFIX WHAT: the expected files, stripped binaries, man
# pages compressed without name or time stamp, verified units that name
# the binary under PREFIX.
check_tree() {
  local root="$1" prefix="$2" what="$3" file unit
  local top="$root$prefix"
  for file in "${expected[@]}"; do
    [ -f "$top/$file" ] || fail "$what: no $prefix/$file"
  done
  for file in "$top"/bin/*; do
    if readelf -S "$file" | grep -qE '\.symtab|\.debug_info'; then
      fail "$what: $file is not stripped"
    fi
  done
  for file in "$top"/share/man/man*/*; do
    # gzip's flags byte (no file name) and its four time bytes are all zero.
    [ "$(od -An -tx1 -j3 -N5 "$file" | tr -d ' ')" = 0000000000 ] ||
      fail "$what: $file is not compressed with gzip -n"
  done
  grep -qx "ExecStart=$prefix/bin/quorpkg chkupgradepkg" \
    "$top/lib/systemd/system/quorpkg-upgrade.service" ||
    fail "$what: the units do not name $prefix/bin/quorpkg"
  # systemd checks the binary and the man page the units name: point them
  # into the tree.
  mkdir -p "$work/$what-units"
  for unit in "$top"/lib/systemd/system/*; do
    sed "s#=$prefix/bin/#=$top/bin/#" "$unit" >"$work/$what-units/${unit##*/}"
  done
  local complaints
  if ! complaints=$(MANPATH="$top/share/man" \
    systemd-analyze verify "$work/$what-units"/* 2>&1) || [ -n "$complaints" ]; then
    fail "$what: systemd-analyze verify: $complaints"
  fi
}

DESTDIR="$work/stage" cmake --install "$build" --strip >/dev/null
check_tree "$work/stage" "$prefix" install

rm -f "$build"/quorpkg_*.deb
(cd "$build" && cpack -G DEB >/dev/null)
deb=$(ls "$build"/quorpkg_*.deb)
dpkg-deb -x "$deb" "$work/deb"
check_tree "$work/deb" /usr deb
depends=$(dpkg-deb -f "$deb" Depends)
# Every shared library the binaries load (what is linked statically loads
# nothing), and libcurl and libcrypto, which are opened at run time, must be
# depended on.
needs=(libcurl4 libssl3)
# The libraries of this architecture: another one's (libc6-i386) may own a
# library of the same name.
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
for lib in $(objdump -p "$work/deb/usr/bin/quorpkg" "$work/deb/usr/bin/zpk" |
    awk '/NEEDED/ {print $2}' | sort -u); do
  owner=$( (dpkg -S "/lib/$multiarch/$lib" || dpkg -S "/usr/lib/$multiarch/$lib") 2>/dev/null |
    head -n 1 | cut -d: -f1)
  [ -n "$owner" ] && needs+=("$owner") || fail "deb: no package owns $lib"
done
# The package names of Depends, one a line, versions left out.
named=$(tr ',|' '\n\n' <<<"$depends" | awk '{print $1}')
for need in "${needs[@]}"; do
  grep -qxF "$need" <<<"$named" || fail "deb: Depends lacks $need: $depends"
done

[ "$(dpkg-deb -f "$deb" Recommends)" = bash-completion ] || fail "deb: Recommends is not bash-completion"
for script in postinst postrm; do
  dpkg-deb --ctrl-tarfile "$deb" | tar -xO "./$script" 2>/dev/null | grep -q 'systemctl --system daemon-reload' ||
    fail "deb: no $script that reloads systemd"
done

# Errors fail, and so do warnings not explained in dist/debian/lintian-overrides.
if ! complaints=$(lintian --allow-root --fail-on error,warning "$deb" 2>&1); then
  fail "deb: lintian: $complaints"
fi

# Installing and removing the package must leave every directory that was
# there before it (base-files makes /usr/local/share/man in its postinst,
# so dpkg counted it as the package's own and took it away).
if [ "${CI:-}" = true ] && [ "$(id -u)" -eq 0 ] &&
  ! dpkg-query -W -f='${Status}' quorpkg 2>/dev/null | grep -q installed; then
  mapfile -t present < <(dpkg-deb -c "$deb" | awk '$1 ~ /^d/ {print substr($6, 2)}' |
    while read -r dir; do [ -d "$dir" ] && echo "$dir"; done)
  # --purge after -r also drops dpkg's record of the removed package.
  if dpkg -i "$deb" >"$work/dpkg.log" 2>&1 && dpkg -r quorpkg >>"$work/dpkg.log" 2>&1 &&
    dpkg --purge quorpkg >>"$work/dpkg.log" 2>&1; then
    for dir in "${present[@]}"; do
      [ -d "$dir" ] || fail "deb: dpkg -r removed $dir, which was there before"
    done
  else
    fail "deb: dpkg -i or dpkg -r failed: $(cat "$work/dpkg.log")"
  fi
else
  echo "note: dpkg -i/-r not tried (only as root on CI, without quorpkg installed)"
fi

if [ "$failures" -ne 0 ]; then
  echo "$failures package checks failed"
  exit 1
fi
echo "install layout and $(basename "$deb") checked"
