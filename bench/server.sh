#!/usr/bin/env bash
# Package-server benchmarks, each a ratio measured side by side in one run:
#   checkupdateall on a kept catalog of 10,000 entries, 1,000 installed
#     (every tenth with a newer version offered)
#     vs list over the same 1,000 installed packages (what reading them costs)
#   the same with every one of the 1,000 offered a newer version
#   the same as the first with a kept catalog of 100,000 entries
#   chkupgradepkg whose server hash is unchanged (no catalog download)
#     vs chkupgradepkg that downloads the 10,000-entry catalog
# and the peak RSS of checkupdateall at 100,000 entries beside the catalog's
# size. The server is python3's http.server on 127.0.0.1. Writes its section
# of bench/RESULTS.md.
#
#   QUORPKG=build-rel/quorpkg ZPK=build-rel/tools/zpk [BASELINE=old/quorpkg] bench/server.sh [WORK_DIR]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../scripts/common.sh"
bench_setup "${1:-$here/work/server}"
source "$here/helpers.sh"
trap stop_http_server EXIT

echo "== installing 1,000 packages"
install_packages "$work/device" 1 1000

# make_catalog DIR COUNT EVERY: the 1,000 installed (every EVERY-th newer)
# and others.
make_catalog() {
  mkdir -p "$1"
  python3 - "$1" "$2" "$3" <<'PY'
import hashlib, json, sys
repo, count, every = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
entries = []
for i in range(1, count + 1):
    installed = i <= 1000
    name = f"pkg{i:05d}" if installed else f"other{i:06d}"
    version = (f"1.0.{i}.1" if i % every == 0 else f"1.0.{i}") if installed else "2.0"
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
}
echo "== catalogs of 10,000 (every tenth or every one newer) and 100,000 entries"
make_catalog "$work/repo10k" 10000 10
make_catalog "$work/repo10kall" 10000 1
make_catalog "$work/repo100k" 100000 10
ls -l "$work"/repo*/catalog.json

# Unverified sources: what a check reads is the same for a trusted one, and
# a catalog this size need not be released from package files.
start_http_server "$work" "$work/http.log"
sizes="10k 10kall 100k"
for size in $sizes; do
  rm -rf "$work/dev$size"
  cp -a "$work/device" "$work/dev$size"
  mkdir -p "$work/dev$size/etc/quorpkg"
  echo "quorserver http://127.0.0.1:$port/repo$size/ unverified" > "$work/dev$size/etc/quorpkg/sources"
  QUOR_ROOT=$work/dev$size "$QUORPKG" chkupgradepkg enu >/dev/null
done
cd "$work"
# Absolute roots, as on a device (a relative one is normalised per lookup).
q() { echo "env QUOR_ROOT=$work/$1 $QUORPKG $2"; }

echo "== checkupdateall on the kept catalogs"
for size in $sizes; do
  QUOR_ROOT=$work/dev$size "$QUORPKG" checkupdateall |
    python3 -c 'import json,sys; print(len(json.load(sys.stdin)), "upgrades offered")'
  same_output "$work/dev$size" checkupdateall
  same_output "$work/dev$size" checkupdate pkg00010
  # The root comes from the environment, so that neither side pays for an
  # extra exec of env(1).
  QUOR_ROOT=$work/dev$size hyperfine_pair "checkupdateall-$size-vs-list" -N --warmup 5 \
    --runs 100 -- "$QUORPKG checkupdateall" "$QUORPKG list"
done
# Each binary runs once first: one keeps its digest in another format than
# the other and would otherwise parse the whole catalog to write its own.
QUOR_ROOT=$work/dev100k "$QUORPKG" checkupdateall >/dev/null
peak_rss "checkupdateall, kept catalog of 100,000 entries ($(( $(stat -c %s repo100k/catalog.json) / 1024 / 1024 )) MB file)" \
  env QUOR_ROOT=$work/dev100k "$QUORPKG" checkupdateall
if [ -n "${BASELINE:-}" ]; then
  QUOR_ROOT=$work/dev100k "$BASELINE" checkupdateall >/dev/null
  peak_rss "the same, baseline binary" env QUOR_ROOT=$work/dev100k "$BASELINE" checkupdateall
fi

echo "== a fresh check: hash unchanged against a catalog download"
hashfile=dev10k/var/cache/quorpkg/list/quorserver.hash.enu
cp "$hashfile" hash.current
sed 's/^hash=.*/hash="temphash"/' "$hashfile" > hash.reset
hyperfine -N --warmup 3 --export-json "$results/fresh-unchanged-vs-download.json" \
  --prepare "cp hash.current $hashfile" "$(q dev10k chkupgradepkg)" \
  --prepare "cp hash.reset $hashfile" "$(q dev10k "chkupgradepkg enu")"

python3 "$here/record.py" "Package server" "$results" checkupdateall-10k-vs-list.json \
  checkupdateall-10kall-vs-list.json checkupdateall-100k-vs-list.json \
  fresh-unchanged-vs-download.json
