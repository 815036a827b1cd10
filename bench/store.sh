#!/usr/bin/env bash
# Package-store benchmarks, each a ratio measured side by side in one run:
#   query of a 1 MB package                 vs query of a 1 GB package
#   install of a 120 MB payload of real files (shared libraries and
#     documentation from this machine), zstd and gzip, vs tar -x of it
#   sort_zpk_by_dep_order over 1,000 files  vs tar -xOf of their manifests
# (list is in bench/list.sh). Writes its section of bench/RESULTS.md.
#
#   QUORPKG=build-rel/quorpkg ZPK=build-rel/tools/zpk [BASELINE=old/quorpkg] bench/store.sh [WORK_DIR]
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

echo "== query: 1 MB against 1 GB"
for size in 1 1024; do
  make_source "$work/src/big$size" "big$size" "1.0"
  head -c $((size * 1024 * 1024)) /dev/urandom > "$work/src/big$size/package/blob"
  "$zpk" build "$work/src/big$size" -o "$work/big$size.zpk" >/dev/null
done
hyperfine -N --warmup 3 --export-json "$results/query.json" \
  "$quorpkg query $work/big1.zpk" "$quorpkg query $work/big1024.zpk"

echo "== install of a 120 MB payload of real files against tar -x"
mkdir -p "$work/src/payload/package"
python3 - "$work/src/payload/package" <<'PY'
import os, shutil, sys
dest = sys.argv[1]
for root, budget in (("/usr/lib/x86_64-linux-gnu", 100 << 20), ("/usr/share/doc", 20 << 20)):
    total = 0
    for dirpath, dirs, files in os.walk(root):
        dirs.sort()
        for name in sorted(files):
            path = os.path.join(dirpath, name)
            if os.path.islink(path) or not os.path.isfile(path):
                continue
            size = os.path.getsize(path)
            if total + size > budget:
                continue
            target = os.path.join(dest, os.path.relpath(path, "/"))
            os.makedirs(os.path.dirname(target), exist_ok=True)
            shutil.copyfile(path, target)
            total += size
PY
du -sh "$work/src/payload/package"
printf 'package="payload"\nversion="1.0"\n' > "$work/src/payload/INFO"
"$zpk" build "$work/src/payload" -o "$work/payload-gz.zpk" >/dev/null
"$zpk" build "$work/src/payload" -o "$work/payload-zst.zpk" --zstd >/dev/null
tar -C "$work/src/payload/package" -czf "$work/payload.tgz" .
tar -C "$work/src/payload/package" --zstd -cf "$work/payload.tzst" .
ls -l "$work"/payload*
export QUOR_ROOT=$work/device2
mkdir -p "$QUOR_ROOT/volume1" "$work/untar"
for kind in gz zst; do
  flag=-z; [ $kind = zst ] && flag=--zstd
  archive=$work/payload.tgz; [ $kind = zst ] && archive=$work/payload.tzst
  # sync: neither side's run flushes what the run before it left dirty.
  hyperfine --runs 8 --export-json "$results/install-$kind.json" \
    --prepare "$quorpkg uninstall payload >/dev/null 2>&1 || true; rm -rf $work/untar/*; sync" \
    "$quorpkg install $work/payload-$kind.zpk" "tar -C $work/untar $flag -xf $archive"
done

echo "== sort of 1,000 package files against reading their manifests"
hyperfine --warmup 2 --export-json "$results/sort.json" \
  "$quorpkg sort_zpk_by_dep_order $work/zpk/*.zpk" \
  "for f in $work/zpk/*.zpk; do tar -xOf \$f INFO; done"

python3 "$here/record.py" "Package store" "$results" \
  query.json install-gz.json install-zst.json sort.json
