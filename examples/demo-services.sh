#!/usr/bin/env bash
# Package services on a device in a folder: start, stop, restart, status,
# is_onoff, pause, resume, onoffall, start-depend and the firmware limit,
# printing each command and what it prints.
#
#   examples/demo-services.sh [QUORPKG [ZPK]]
#
# The binaries come from the arguments, else from $QUORPKG and $ZPK, else
# from build/. The device is $QUOR_ROOT (made with two volumes when unset).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../scripts/common.sh"
quor_tools "${1:-}" "${2:-}"
quor_device
quor_publisher_key
zpks="$QUOR_ROOT/zpk"
mkdir -p "$zpks"

echo "== Services (device root: $QUOR_ROOT)"
echo
for src in heartbeat dbviewer legacytool; do
  "$ZPK" build "$here/packages/$src" -o "$zpks/$src.zpk" --sign "$SIGN_KEY" >/dev/null
  # Installing a package with a service turns it on and starts it.
  run install "$zpks/$src.zpk"
done

echo "== One package: heartbeat runs a daemon; status asks that process"
run status heartbeat
run is_onoff heartbeat
run stop heartbeat
run status heartbeat
run is_onoff heartbeat
run start heartbeat
run start heartbeat
run restart heartbeat
run log heartbeat
pid=$(cat "$QUOR_ROOT/var/packages/heartbeat/var/heartbeatd.pid")
echo "\$ kill -9 $pid    # the daemon dies behind the platform's back"
kill -9 "$pid"
echo
run status heartbeat
run start heartbeat
run status heartbeat

echo "== Pause stops a package but keeps it turned on; resume starts it again"
run pause dbviewer skipupgradecheck
run status dbviewer
run is_onoff dbviewer
run resume dbviewer
run status dbviewer

echo "== Packages that need the pgsql service, bracketed by hardware-control requests"
run stop-depend pgsql
run status dbviewer
run start-depend pgsql
run status dbviewer
run start-depend mysql
show "$QUOR_ROOT/run/hwcontrol/requests"

echo "== All packages: shutdown and start-up, with an event word"
run onoffall stop shutdown
run status heartbeat
run status dbviewer
run onoffall start boot
run status heartbeat
run status dbviewer
show "$QUOR_ROOT/var/log/packages/dbviewer.log"

echo "== The firmware limit: this firmware refuses legacytool 1.0"
mkdir -p "$QUOR_ROOT/etc/quorpkg"
echo "legacytool <= 1.0-0001" > "$QUOR_ROOT/etc/quorpkg/firmware-limits"
show "$QUOR_ROOT/etc/quorpkg/firmware-limits"
run pause legacytool
run start legacytool
reason
run is_onoff legacytool
run onoffall start
run status legacytool
run notify_stopped_by_firmware
show "$QUOR_ROOT/var/spool/quorpkg/notifications"

# Leave no daemon behind.
"$QUORPKG" onoffall stop >/dev/null
