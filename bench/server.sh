#!/usr/bin/env bash
# Package-server benchmarks, each a ratio measured side by side in one run:
#   checkupdateall on a cached catalog of 10,000 entries, 1,000 installed
#     vs list over the same 1,000 installed packages (what reading them costs)
#   chkupgradepkg whose server hash is unchanged (no catalog download)
#     vs chkupgradepkg that downloads the 10,000-entry catalog
# The server is python3's http.server on 127.0.0.1. Writes its section of
# bench/RESULTS.md. Needs hyperfine and a build in build/.
#
#   bench/server.sh [WORK_DIR]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../scripts/common.sh"
bench_setup "${1:-$here/work/server}"
quorpkg=$QUORPKG zpk=$ZPK
mkdir -p "$work/repo" "$work/zpk"
trap stop_http_server EXIT

echo "== building and installing 1,000 packages"
export QUOR_ROOT=$work/device
mkdir -p "$QUOR_ROOT/volume1" "$QUOR_ROOT/etc/quorpkg"
for i in $(seq -w 1 1000); do
  src=$work/src/pkg$i
  mkdir -p "$src/package"
  printf 'package="pkg%s"\nversion="1.0.%s"\ndescription="bench package %s"\n' "$i" "$i" "$i" \
    > "$src/INFO"
  echo "pkg$i" > "$src/package/README"
  "$zpk" build "$src" -o "$work/zpk/pkg$i.zpk" >/dev/null
  "$quorpkg" install "$work/zpk/pkg$i.zpk" >/dev/null
done

echo "== a catalog of 10,000 entries: the 1,000 installed (every tenth newer) and 9,000 others"
python3 - "$work/repo" <<'PY'
import hashlib, json, sys
repo = sys.argv[1]
entries = []
for i in range(1, 10001):
    installed = i <= 1000
    name = f"pkg{i:04d}" if installed else f"other{i:05d}"
    version = f"1.{1 if installed and i % 10 == 0 else 0}.{i:04d}" if installed else "2.0"
    entries.append({"package": name, "version": version, "dname": name.title(),
                    "desc": f"bench package {name}", "type": 0, "size": 10240,
                    "link": f"{name}.zpk", "md5": hashlib.md5(name.encode()).hexdigest(),
                    "beta": False, "important": False, "deps": "", "firmware": "",
                    "arch": "noarch"})
packages = json.dumps(entries, separators=(",", ":"))
digest = hashlib.md5(packages.encode()).hexdigest()
with open(f"{repo}/catalog.json", "w") as out:
    json.dump({"hash": digest, "packages": entries}, out, indent=1)
with open(f"{repo}/catalog.hash", "w") as out:
    out.write(digest + "\n")
PY
ls -l "$work/repo"

start_http_server "$work/repo" "$work/http.log"
echo "quorserver http://127.0.0.1:$port/" > "$QUOR_ROOT/etc/quorpkg/sources"

echo "== checkupdateall on the cached catalog"
"$quorpkg" checkupdateall | python3 -c 'import json,sys; print(len(json.load(sys.stdin)), "upgrades offered")'
hyperfine -N --warmup 3 --export-json "$results/checkupdateall-cached-vs-list.json" \
  "$quorpkg checkupdateall" "$quorpkg list"

echo "== a fresh check: hash unchanged against a catalog download"
hashfile=$QUOR_ROOT/var/cache/quorpkg/list/quorserver.hash.enu
cp "$hashfile" "$work/hash.current"
sed 's/^hash=.*/hash="temphash"/' "$hashfile" > "$work/hash.reset"
hyperfine -N --warmup 3 --export-json "$results/fresh-unchanged-vs-download.json" \
  --prepare "cp $work/hash.current $hashfile" "$quorpkg chkupgradepkg" \
  --prepare "cp $work/hash.reset $hashfile" "$quorpkg chkupgradepkg enu"

python3 "$here/record.py" "Package server" "$results" \
  checkupdateall-cached-vs-list.json fresh-unchanged-vs-download.json
