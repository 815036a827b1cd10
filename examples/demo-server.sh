#!/usr/bin/env bash
# A package server: a trusted source published with zpk (a root that needs 2
# of its 3 root keys, a timestamp key, a catalog key, publisher keys allowed
# per package name), served over HTTP on 127.0.0.1 and pinned by the device.
# Installs from it in the background, checks for upgrades and upgrades,
# rotates the catalog key in band, then shows what the device refuses with
# the reasons from quorpkg.log, printing each command and its output.
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
mkdir -p "$work/keys" "$work/repo"
trap 'stop_http_server; rm -rf "$work"' EXIT
cd "$work"
sources=$QUOR_ROOT/etc/quorpkg/sources

# publish SOURCE [VERSION [KEY]]: builds an example package (at another
# version when given) into the served folder, signed by keys/KEY.key
# (default: the publisher key).
publish() {
  local src=$here/packages/$1 name=$1
  if [ -n "${2:-}" ]; then
    cp -r "$src" "$work/$1-$2"
    sed -i "s/^version=.*/version=\"$2\"/" "$work/$1-$2/INFO"
    src=$work/$1-$2
    name=$1-$2
  fi
  "$ZPK" build "$src" -o "repo/$name.zpk" --sign "keys/${3:-publisher}.key" >/dev/null
}

release() {
  zrun release repo --catalog-key "keys/${1:-catalog}.key" --timestamp-key keys/timestamp.key
}

# The web server's requests since the last call: what a device asked for.
served=0
requests() {
  echo "\$ (the web server's log: $1)"
  local lines
  lines=$(grep -o '"GET [^"]*" [0-9]*' "$work/http.log" | sed 's/ HTTP\/1\.[01]"/"/')
  echo "$lines" | tail -n +"$((served + 1))"
  served=$(echo "$lines" | wc -l)
  echo
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

echo "== A trusted package source (device root: $QUOR_ROOT)"
echo
# Root keys are held offline by three people; the timestamp key signs on
# the server (cron), the catalog key on the release machine. The publisher
# key is the one that signed the local package files; partner's may sign
# reporter only.
(cd keys && for key in root1 root2 root3 timestamp catalog partner; do
  "$ZPK" keygen "$key" >/dev/null
done)
cp "$SIGN_KEY" "${SIGN_KEY%.key}.pub" keys/
echo "\$ ls keys"
ls -C keys
echo
zrun source new repo --id demo-stable \
  --root-key keys/root1.pub --root-key keys/root2.pub --root-key keys/root3.pub --threshold 2 \
  --timestamp-key keys/timestamp.pub --catalog-key keys/catalog.pub \
  --publisher keys/publisher.pub=textutils,notebook --publisher keys/partner.pub=reporter
zrun root sign repo/1.root.draft keys/root1.key
zrun root sign repo/1.root.draft keys/root3.key
publish textutils
publish notebook
publish reporter "" partner
echo "(textutils and notebook built with --sign keys/publisher.key, reporter with keys/partner.key)"
release
cp repo/timestamp "$work/timestamp.first"
echo "\$ ls repo"
ls -C repo
echo

start_http_server repo "$work/http.log"
pin=$(sha256sum repo/1.root | cut -d' ' -f1)
echo "quorserver http://127.0.0.1:$port/ root=$pin" > "$sources"
show "$sources"

echo "== Installing from the server: reporter, and what it requires, onto volume2"
run install_from_server reporter volume2 admin
wait_task reporter
show "$QUOR_ROOT/var/packages/reporter/origin"
run install_from_server reporter
run install_from_server nosuchpackage
reason
run list

echo "== Newer versions appear on the server"
publish textutils 1.1.0
publish notebook 2.2-0001
release
# The cached catalog does not know them yet; a fresh check resets the cache.
run checkupdateall
requests "until now" >/dev/null
run chkupgradepkg
requests "the release came as a patch from the kept catalog version"
show "$QUOR_ROOT/var/cache/quorpkg/list/quorserver.hash.enu"
run checkupdateall
run checkupdate notebook
run checkupdate reporter
requests "since" >/dev/null
run chkupgradepkg
requests "nothing new: one conditional request, answered 304"
echo "\$ ls /var/lib/quorpkg/sources/$pin"
ls "$QUOR_ROOT/var/lib/quorpkg/sources/$pin"
echo

echo "== Upgrade-all: by default only what the firmware limit blocks"
echo "textutils <= 1.0.0" >> "$QUOR_ROOT/etc/quorpkg/firmware-limits"
show "$QUOR_ROOT/etc/quorpkg/firmware-limits"
run upgradeall
run list
run upgradeall false
run list
run checkupdateall
show "$QUOR_ROOT/var/packages/notebook/var/notes.txt"

echo "== The catalog key is rotated in band: root 2, signed by two root keys"
(cd keys && "$ZPK" keygen catalog2 >/dev/null)
zrun root next repo --catalog-key keys/catalog2.pub
zrun root sign repo/2.root.draft keys/root1.key
zrun root sign repo/2.root.draft keys/root2.key
release catalog2
# The publisher's cron job re-signs the timestamp every day.
zrun timestamp repo --timestamp-key keys/timestamp.key
zrun verify "http://127.0.0.1:$port/" --root "$pin"
run chkupgradepkg
show "$QUOR_ROOT/var/lib/quorpkg/sources/$pin/state"

echo "== Refused: the first release's timestamp replayed (its files are all still served)"
cp repo/timestamp "$work/timestamp.current"
replace_served "$work/timestamp.first" repo/timestamp
run chkupgradepkg
reason 2
replace_served "$work/timestamp.current" repo/timestamp

echo "== Refused: a timestamp that expired (the publisher's cron job stopped)"
zrun timestamp repo --timestamp-key keys/timestamp.key --days 0
run chkupgradepkg
reason 2
"$ZPK" timestamp repo --timestamp-key keys/timestamp.key >/dev/null

echo "== Refused: textutils signed by partner's key, which the root allows for reporter only"
publish textutils 1.2.0 partner
release catalog2
run upgradeall false
reason
echo "\$ tail -n 2 /var/log/packages/textutils.log"
tail -n 2 "$QUOR_ROOT/var/log/packages/textutils.log"
echo
run version textutils
rm repo/textutils-1.2.0.zpk
"$ZPK" release repo --catalog-key keys/catalog2.key --timestamp-key keys/timestamp.key >/dev/null
echo "(textutils-1.2.0.zpk withdrawn, released again)"
run chkupgradepkg
run checkupdateall

echo "== The server goes away: checks fail, the remembered hash stays, cached answers hold"
stop_http_server
run chkupgradepkg enu
reason 2
show "$QUOR_ROOT/var/cache/quorpkg/list/quorserver.hash.enu"
run checkupdateall

echo "== The unverified mode: a line without a pinned root is not used at all..."
start_http_server repo "$work/http.log"
echo "quorserver http://127.0.0.1:$port/" > "$sources"
run checkupdate textutils
reason 2
echo "== ...unless it says unverified; every query of it says so"
# Such a device checks the plain catalog (zpk release writes it) against
# its keys folder, as it checks local files: the publisher key signs it.
zrun index repo --sign keys/publisher.key
echo "quorserver http://127.0.0.1:$port/ unverified" > "$sources"
run checkupdateall
reason 2
