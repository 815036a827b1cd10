#!/usr/bin/env bash
# Installs a built tree into a staging folder with `cmake --install --strip`
# and builds the Debian package with cpack; checks that both hold every file
# in its usual place, stripped binaries, units that systemd accepts and the
# computed Depends with libcurl. Usage: scripts/check-package.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The units name the installed binary: configure for the package's prefix
# (nothing is recompiled for that).
cmake -S . -B "$build" -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
cmake --build "$build" --target quorpkg zpk -j"$(nproc)" >/dev/null

expected=(
  usr/bin/quorpkg usr/bin/zpk
  usr/share/man/man8/quorpkg.8 usr/share/man/man1/zpk.1 usr/share/man/man5/quorpkg-package.5
  usr/share/bash-completion/completions/quorpkg usr/share/bash-completion/completions/zpk
  usr/lib/systemd/system/quorpkg.service usr/lib/systemd/system/quorpkg-upgrade.service
  usr/lib/systemd/system/quorpkg-upgrade.timer
  usr/share/doc/quorpkg/README.md usr/share/doc/quorpkg/package-format.md
  usr/share/doc/quorpkg/first-package.md usr/share/doc/quorpkg/examples/settings
)
failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# check_tree DIR WHAT: the expected files, stripped binaries, verified units.
check_tree() {
  local root="$1" what="$2" file unit
  for file in "${expected[@]}"; do
    [ -f "$root/$file" ] || fail "$what: no $file"
  done
  for file in "$root"/usr/bin/*; do
    if readelf -S "$file" | grep -qE '\.symtab|\.debug_info'; then
      fail "$what: $file is not stripped"
    fi
  done
  # systemd checks the binary and the man page the units name: point them
  # into the tree.
  mkdir -p "$work/$what-units"
  for unit in "$root"/usr/lib/systemd/system/*; do
    sed "s#=/usr/bin/#=$root/usr/bin/#" "$unit" >"$work/$what-units/${unit##*/}"
  done
  local complaints
  if ! complaints=$(MANPATH="$root/usr/share/man" \
    systemd-analyze verify "$work/$what-units"/* 2>&1) || [ -n "$complaints" ]; then
    fail "$what: systemd-analyze verify: $complaints"
  fi
}

DESTDIR="$work/stage" cmake --install "$build" --strip >/dev/null
check_tree "$work/stage" install

rm -f "$build"/quorpkg_*.deb
(cd "$build" && cpack -G DEB >/dev/null)
deb=$(ls "$build"/quorpkg_*.deb)
dpkg-deb -x "$deb" "$work/deb"
check_tree "$work/deb" deb
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

if [ "$failures" -ne 0 ]; then
  echo "$failures package checks failed"
  exit 1
fi
echo "install layout and $(basename "$deb") checked"
