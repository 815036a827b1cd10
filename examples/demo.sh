#!/usr/bin/env bash
# A whole device in a folder: builds quorpkg and the example packages, then
# drives quorpkg through its commands, printing each command and its output.
#
#   examples/demo.sh [DEVICE_DIR]
#
# DEVICE_DIR (default: a new temporary folder) becomes the device's root.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../scripts/common.sh"
quor_tools
quor_device "${1:-}"
device=$QUOR_ROOT
zpks="$device/zpk"
mkdir -p "$zpks"

echo "== Device root: $device (volumes: volume1, volume2)"
echo
echo "== The publisher's signing key; the device trusts its public half"
quor_publisher_key
ls "$zpks" "$device/etc/quorpkg/keys"
echo
echo "== Building the example packages, signed"
for src in textutils notebook reporter; do
  "$ZPK" build "$here/packages/$src" -o "$zpks/$src.zpk" --sign "$SIGN_KEY"
done
ls -l "$zpks"
"$ZPK" info "$zpks/notebook.zpk" | grep -E '^(sha256|signature):'
echo

echo "== Files the device refuses: unsigned, and changed after signing"
"$ZPK" build "$here/packages/notebook" -o "$zpks/unsigned.zpk" >/dev/null
run install "$zpks/unsigned.zpk"
tampered=$(mktemp -d)
tar -xf "$zpks/notebook.zpk" -C "$tampered" 2>/dev/null
sed -i 's/^description=.*/description="Changed after signing"/' "$tampered/INFO"
members=$(tar -tf "$zpks/notebook.zpk" 2>/dev/null)
(cd "$tampered" && tar --format=pax --no-recursion -cf "$zpks/tampered.zpk" $members)
rm -rf "$tampered"
run install "$zpks/tampered.zpk"
reason 2
show "$device/var/log/packages/notebook.log"
rm "$zpks/unsigned.zpk" "$zpks/tampered.zpk" "$device/var/log/packages/notebook.log"

echo "== Package files"
run query "$zpks/notebook.zpk"
run sort_zpk_by_dep_order "$zpks/reporter.zpk" "$zpks/notebook.zpk" "$zpks/textutils.zpk"

echo "== Installing in dependency order"
run install "$zpks/reporter.zpk"
reason
for name in $("$QUORPKG" sort_zpk_by_dep_order "$zpks/reporter.zpk" "$zpks/notebook.zpk" \
                "$zpks/textutils.zpk"); do
  run install "$name"
done

echo "== What is installed"
run list
run list --name
run list --depend-on textutils
run version notebook
run log notebook
run status notebook

echo "== Removing"
run uninstall textutils
reason
run uninstall reporter
run list --name

for part in demo-services.sh demo-server.sh; do
  if [ -x "$here/$part" ]; then "$here/$part"; fi
done
echo "== Done. The device is in $device"
