#!/usr/bin/env bash
# Listing benchmarks, each a ratio measured side by side in one run:
#   quorpkg list, 1,000 installed   vs dpkg-query -W over a 1,000-package admindir
#   quorpkg list, 10,000 installed  vs quorpkg list, 1,000 installed
# and the peak RSS of list at 10,000. Writes its section of bench/RESULTS.md.
#
#   QUORPKG=build-rel/quorpkg ZPK=build-rel/tools/zpk [BASELINE=old/quorpkg] bench/list.sh [WORK_DIR]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../scripts/common.sh"
bench_setup "${1:-$here/work/list}"
source "$here/helpers.sh"

echo "== installing 1,000 packages; 10,000 as 1,000 installed and 9,000 copies"
install_packages "$work/dev1k" 1 1000
if [ ! -d "$work/dev10k" ]; then
  cp -a "$work/dev1k" "$work/dev10k.tmp"
  clone_packages "$work/dev10k.tmp" 1001 10000
  mv "$work/dev10k.tmp" "$work/dev10k"
fi

echo "== a dpkg database of 1,000 packages"
admin=$work/dpkg
mkdir -p "$admin/info" "$admin/updates"
: > "$admin/available"
for i in $(seq 1 1000); do
  printf 'Package: pkg%05d\nStatus: install ok installed\nPriority: optional\nSection: misc\nMaintainer: bench\nArchitecture: all\nVersion: 1.0.%d\nDescription: bench package pkg%05d\n\n' "$i" "$i" "$i"
done > "$admin/status"

cd "$work"
# Absolute roots, as on a device (a relative one is normalised per lookup).
list() { echo "env QUOR_ROOT=$work/$1 $QUORPKG list"; }
# Both listings must be byte-identical to what the store holds.
[ "$(QUOR_ROOT=$work/dev1k "$QUORPKG" list | wc -l)" -eq 1000 ]
for size in 1k 10k; do
  for args in list "list --name" "list --depend-on pkg00001"; do
    # shellcheck disable=SC2086
    same_output "$work/dev$size" $args
  done
done
# The root comes from the environment, so that neither side pays for an
# extra exec of env(1).
QUOR_ROOT=$work/dev1k hyperfine_pair list-1k-vs-dpkg -N --warmup 5 --runs 100 -- \
  "$QUORPKG list" "dpkg-query --admindir=$admin -W"
hyperfine_pair list-10k-vs-1k -N --warmup 3 --runs 30 -- "$(list dev10k)" "$(list dev1k)"
# Each binary lists once first: one keeps its index in another format than
# the other and would otherwise read every package to write its own.
QUOR_ROOT=$work/dev10k "$QUORPKG" list >/dev/null
peak_rss "quorpkg list, 10,000 installed" env QUOR_ROOT=$work/dev10k "$QUORPKG" list
if [ -n "${BASELINE:-}" ]; then
  QUOR_ROOT=$work/dev10k "$BASELINE" list >/dev/null
  peak_rss "the same, baseline binary" env QUOR_ROOT=$work/dev10k "$BASELINE" list
fi

python3 "$here/record.py" "Listing" "$results" list-1k-vs-dpkg.json list-10k-vs-1k.json
