#!/usr/bin/env bash
# Package-store benchmarks, each a ratio measured side by side in one run:
#   list over 1,000 installed packages     vs dpkg-query -W over 1,000 packages
#   query of a 1 MB package                vs query of a 1 GB package
#   install of a 200 MB payload (gzip/zstd) vs tar -x of the same payload
#   sort_zpk_by_dep_order over 1,000 files vs tar -xOf of their manifests
# Writes its section of bench/RESULTS.md. Needs hyperfine and a build in build/.
#
#   bench/store.sh [WORK_DIR]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../scripts/common.sh"
bench_setup "${1:-$here/work/store}"
quorpkg=$QUORPKG zpk=$ZPK

# make_source DIR NAME VERSION [DEPS]: a package source with a small payload.
make_source() {
  mkdir -p "$1/package"
  printf 'package="%s"\nversion="%s"\ndescription="bench package %s"\n' "$2" "$3" "$2" > "$1/INFO"
  [ -z "${4:-}" ] || printf 'install_dep_packages="%s"\n' "$4" >> "$1/INFO"
  echo "$2" > "$1/package/README"
}

echo "== building 1,000 package files"
mkdir -p "$work/zpk" "$work/src"
for i in $(seq -w 1 1000); do
  deps=""
  [ "$i" -gt 1 ] && deps="pkg$(printf '%04d' $(( (10#$i) / 2 )))"
  make_source "$work/src/pkg$i" "pkg$i" "1.0.$i" "$deps"
  "$zpk" build "$work/src/pkg$i" -o "$work/zpk/pkg$i.zpk" >/dev/null
done

echo "== installing them into a device"
export QUOR_ROOT=$work/device
mkdir -p "$QUOR_ROOT/volume1"
for f in $("$quorpkg" sort_zpk_by_dep_order "$work"/zpk/*.zpk); do "$quorpkg" install "$f" >/dev/null; done

echo "== a dpkg database of 1,000 packages"
admin=$work/dpkg
mkdir -p "$admin/info" "$admin/updates"
: > "$admin/available"
for i in $(seq -w 1 1000); do
  printf 'Package: pkg%s\nStatus: install ok installed\nPriority: optional\nSection: misc\nMaintainer: bench\nArchitecture: all\nVersion: 1.0.%s\nDescription: bench package pkg%s\n\n' "$i" "$i" "$i"
done > "$admin/status"

hyperfine -N --warmup 3 --export-json "$results/list.json" \
  "$quorpkg list" "dpkg-query --admindir=$admin -W"

echo "== query: 1 MB against 1 GB"
for size in 1 1024; do
  make_source "$work/src/big$size" "big$size" "1.0"
  head -c $((size * 1024 * 1024)) /dev/urandom > "$work/src/big$size/package/blob"
  "$zpk" build "$work/src/big$size" -o "$work/big$size.zpk" >/dev/null
done
hyperfine -N --warmup 3 --export-json "$results/query.json" \
  "$quorpkg query $work/big1.zpk" "$quorpkg query $work/big1024.zpk"

echo "== install of a 200 MB payload against tar -x"
mkdir -p "$work/src/payload/package/data"
for i in $(seq 1 200); do head -c 1048576 /dev/urandom > "$work/src/payload/package/data/f$i"; done
printf 'package="payload"\nversion="1.0"\n' > "$work/src/payload/INFO"
"$zpk" build "$work/src/payload" -o "$work/payload-gz.zpk" >/dev/null
"$zpk" build "$work/src/payload" -o "$work/payload-zst.zpk" --zstd >/dev/null
tar -C "$work/src/payload/package" -czf "$work/payload.tgz" .
tar -C "$work/src/payload/package" --zstd -cf "$work/payload.tzst" .
export QUOR_ROOT=$work/device2
mkdir -p "$QUOR_ROOT/volume1" "$work/untar"
for kind in gz zst; do
  flag=-z; [ $kind = zst ] && flag=--zstd
  archive=$work/payload.tgz; [ $kind = zst ] && archive=$work/payload.tzst
  hyperfine --runs 5 --export-json "$results/install-$kind.json" \
    --prepare "$quorpkg uninstall payload >/dev/null 2>&1 || true; rm -rf $work/untar/*" \
    "$quorpkg install $work/payload-$kind.zpk" "tar -C $work/untar $flag -xf $archive"
done

echo "== sort of 1,000 package files against reading their manifests"
hyperfine --warmup 2 --export-json "$results/sort.json" \
  "$quorpkg sort_zpk_by_dep_order $work/zpk/*.zpk" \
  "for f in $work/zpk/*.zpk; do tar -xOf \$f INFO; done"

python3 "$here/record.py" "Package store" "$results" \
  list.json query.json install-gz.json install-zst.json sort.json
