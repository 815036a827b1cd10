#!/usr/bin/env bash
# The package server: a folder of package files indexed by `zpk index` and
# served over HTTP on 127.0.0.1; installing from it in the background,
# checking for upgrades and upgrading, printing each command and its output.
#
#   examples/demo-server.sh [QUORPKG [ZPK]]
#
# The binaries come from the arguments, else from $QUORPKG and $ZPK, else
# from build/. The device is $QUOR_ROOT (made with two volumes when unset).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../scripts/common.sh"
quor_tools "${1:-}" "${2:-}"
command -v python3 >/dev/null || { echo "python3 is needed for the HTTP server" >&2; exit 1; }
quor_device
quor_publisher_key
work=$(mktemp -d /tmp/quor-repo.XXXXXX)
repo=$work/repo
mkdir -p "$repo"
trap 'stop_http_server; rm -rf "$work"' EXIT

# publish SOURCE [VERSION]: builds an example package (at another version
# when given) into the served folder.
publish() {
  local src=$here/packages/$1 name=$1
  if [ -n "${2:-}" ]; then
    cp -r "$src" "$work/$1-$2"
    sed -i "s/^version=.*/version=\"$2\"/" "$work/$1-$2/INFO"
    src=$work/$1-$2
    name=$1-$2
  fi
  "$ZPK" build "$src" -o "$repo/$name.zpk" --sign "$SIGN_KEY" >/dev/null
}

# Waits for a background installation to finish (bounded), then shows it.
wait_task() {
  local file=$QUOR_ROOT/run/quorpkg/tasks/$1.json
  for _ in $(seq 600); do
    grep -qE '"state":"(done|failed)"' "$file" 2>/dev/null && break
    sleep 0.1
  done
  show "$file"
}

echo "== A package server (device root: $QUOR_ROOT)"
echo
for src in textutils notebook reporter; do publish "$src"; done
echo "\$ zpk index ${repo#"$work/"} --sign publisher.key"
(cd "$work" && "$ZPK" index repo --sign "$SIGN_KEY")
echo

start_http_server "$repo" "$work/http.log"
echo "quorserver http://127.0.0.1:$port/" > "$QUOR_ROOT/etc/quorpkg/sources"
show "$QUOR_ROOT/etc/quorpkg/sources"

echo "== Installing from the server: reporter, and what it requires, onto volume2"
run install_from_server reporter volume2 admin
wait_task reporter
run install_from_server reporter
run install_from_server nosuchpackage
reason
run list

echo "== Newer versions appear on the server"
publish textutils 1.1.0
publish notebook 2.2-0001
(cd "$work" && "$ZPK" index repo --sign "$SIGN_KEY" >/dev/null)
# The cached catalog does not know them yet; a fresh check resets the cache.
run checkupdateall
run chkupgradepkg
show "$QUOR_ROOT/var/cache/quorpkg/list/quorserver.hash.enu"
run checkupdateall
run checkupdate notebook
run checkupdate reporter

echo "== Upgrade-all: by default only what the firmware limit blocks"
echo "textutils <= 1.0.0" >> "$QUOR_ROOT/etc/quorpkg/firmware-limits"
show "$QUOR_ROOT/etc/quorpkg/firmware-limits"
run upgradeall
run list
run upgradeall false
run list
run checkupdateall
show "$QUOR_ROOT/var/packages/notebook/var/notes.txt"

echo "== A catalog changed after signing is refused: the check fails"
cp "$repo/catalog.json" "$work/catalog.good"
sed -i 's/"important" : false/"important" : true/' "$repo/catalog.json"
echo changed > "$repo/catalog.hash"
run chkupgradepkg
reason
cp "$work/catalog.good" "$repo/catalog.json"
(cd "$work" && "$ZPK" index repo --sign "$SIGN_KEY" >/dev/null)

echo "== The server goes away: checks fail and the remembered hash stays"
stop_http_server
run chkupgradepkg enu
reason
show "$QUOR_ROOT/var/cache/quorpkg/list/quorserver.hash.enu"
