#!/usr/bin/env bash
# A whole device in a folder: builds quorpkg and the example packages, then
# drives quorpkg through its commands, printing each command and its output.
#
#   examples/demo.sh [DEVICE_DIR]
#
# DEVICE_DIR (default: a new temporary folder) becomes the device's root.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(dirname "$here")

if [ ! -x "$top/build/quorpkg" ] || [ ! -x "$top/build/tools/zpk" ]; then
  "$top/scripts/setup.sh"
  cmake -S "$top" -B "$top/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUOR_BUILD_TESTS=OFF >/dev/null
  cmake --build "$top/build" -j"$(nproc)" --target quorpkg zpk >/dev/null
fi
export QUORPKG="$top/build/quorpkg" ZPK="$top/build/tools/zpk"

device=${1:-$(mktemp -d /tmp/quor-device.XXXXXX)}
mkdir -p "$device/volume1" "$device/volume2"
export QUOR_ROOT=$device
zpks="$device/zpk"
mkdir -p "$zpks"

# Shows a command as typed and everything it prints, then its exit status.
run() {
  echo "\$ quorpkg $*"
  local status=0
  "$QUORPKG" "$@" || status=$?
  echo "[exit $status]"
  echo
}
export -f run

echo "== Device root: $device (volumes: volume1, volume2)"
echo
echo "== Building the example packages"
for src in textutils notebook reporter; do
  "$ZPK" build "$here/packages/$src" -o "$zpks/$src.zpk"
done
ls -l "$zpks"
echo

echo "== Package files"
run query "$zpks/notebook.zpk"
run sort_zpk_by_dep_order "$zpks/reporter.zpk" "$zpks/notebook.zpk" "$zpks/textutils.zpk"

echo "== Installing in dependency order"
run install "$zpks/reporter.zpk"
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
run uninstall reporter
run list --name

for part in demo-services.sh demo-server.sh; do
  if [ -x "$here/$part" ]; then "$here/$part"; fi
done
echo "== Done. The device is in $device"
