#!/usr/bin/env bash
# Boots a Debian 12 container whose init is systemd, installs quorpkg and a
# package with a real daemon in it, and lets the nightly upgrade unit
# upgrade that package: the daemon it restarts must outlive the unit (it
# runs in a scope of its own, not in the unit's control group, which
# systemd empties when the oneshot ends), with the script's environment as
# documented; a stop must still end it, and a start past script_timeout
# must leave nothing behind.
# Usage: systemd_daemon_test.sh QUORPKG ZPK UNIT_SOURCE_DIR CACHE_DIR
# The container's root is made once by debootstrap and kept in
# CACHE_DIR/systemd-root; each run boots a copy. Exits 77 (skipped) when no
# container can be made or booted here, saying why.
set -uo pipefail
quorpkg="$1" zpk="$2" unit_dir="$3" cache="$4"
skip() {
    echo "SKIPPED: $*"
    exit 77
}
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
failures=0

[ "$(id -u)" -eq 0 ] || skip "booting a systemd container needs root"
for tool in debootstrap systemd-nspawn nsenter ldd; do
    command -v "$tool" >/dev/null || skip "$tool is not installed (scripts/setup.sh installs it)"
done

base="$cache/systemd-root"
if [ ! -e "$base/.complete" ]; then
    rm -rf "$base" "$base.new"
    mkdir -p "$cache"
    echo "making the container root with debootstrap (once; kept in $base)"
    if ! debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus bookworm \
        "$base.new" >"$cache/systemd-root.log" 2>&1; then
        tail -n 5 "$cache/systemd-root.log"
        rm -rf "$base.new"
        skip "debootstrap could not make a Debian 12 root (log: $cache/systemd-root.log)"
    fi
    touch "$base.new/.complete"
    mv "$base.new" "$base"
fi

work=$(mktemp -d)
nspawn=
cleanup() {
    if [ -n "$nspawn" ] && kill -0 "$nspawn" 2>/dev/null; then
        # nspawn asks the container's systemd to power off on SIGTERM.
        kill "$nspawn"
        for _ in $(seq 100); do kill -0 "$nspawn" 2>/dev/null || break; sleep 0.1; done
        kill -9 "$nspawn" 2>/dev/null
        wait "$nspawn" 2>/dev/null
    fi
    rm -rf "$work"
}
trap cleanup EXIT
root="$work/root"
cp -a "$base" "$root"

# The binary and the libraries it loads, libcurl's and libcrypto's included
# (opened at run time), where the host keeps them: both are Debian 12.
install -m 755 "$quorpkg" "$root/usr/bin/quorpkg"
multiarch_lib=$(dirname "$(ldconfig -p | awk '/libcurl\.so\.4 /{print $NF; exit}')")
for lib in $(ldd "$quorpkg" "$multiarch_lib/libcurl.so.4" "$multiarch_lib/libcrypto.so.3" |
    awk '$2 == "=>" && $3 ~ /^\// {print $3}' | sort -u) \
    "$multiarch_lib/libcurl.so.4" "$multiarch_lib/libcrypto.so.3"; do
    [ -e "$root$lib" ] || cp -L "$lib" "$root$lib"
done
for unit in "$unit_dir"/*; do
    name=$(basename "$unit" .in)
    sed 's#@QUORPKG_BINARY@#/usr/bin/quorpkg#g' "$unit" >"$root/etc/systemd/system/$name"
done

# "ticker": a shell loop as its daemon; its start records the environment
# and control group the script ran with.
source_dir="$work/ticker"
mkdir -p "$source_dir/package/bin" "$source_dir/scripts"
cat >"$source_dir/package/bin/tickerd" <<'EOF'
#!/bin/sh
while :; do date +%s >"$1"; sleep 1; done
EOF
cat >"$source_dir/scripts/start-stop-status" <<'EOF'
#!/bin/sh
pidfile="$QUOR_PKG_VAR/tickerd.pid"
running() { [ -s "$pidfile" ] && kill -0 "$(cat "$pidfile")" 2>/dev/null; }
case "$1" in
start)
    env | sort >"$QUOR_PKG_VAR/start.env"
    cat /proc/self/cgroup >"$QUOR_PKG_VAR/start.cgroup"
    "$QUOR_PKG_TARGET/bin/tickerd" "$QUOR_PKG_VAR/tick" </dev/null >/dev/null 2>&1 &
    echo $! >"$pidfile" ;;
stop) running && kill "$(cat "$pidfile")"; rm -f "$pidfile" ;;
status) running || exit 3 ;;
esac
exit 0
EOF
chmod 755 "$source_dir/package/bin/tickerd" "$source_dir/scripts/start-stop-status"
mkdir -p "$root/srv/repo" "$root/etc/quorpkg"
for version in 1.0 1.1; do
    printf 'package="ticker"\nversion="%s"\narch="noarch"\n' "$version" >"$source_dir/INFO"
    "$zpk" build "$source_dir" -o "$root/srv/ticker-$version.zpk" >/dev/null ||
        { echo "FAIL: zpk build ticker $version"; exit 1; }
done
# "stuck": a start that never ends, and leaves a process behind as it hangs.
stuck_dir="$work/stuck"
mkdir -p "$stuck_dir/package" "$stuck_dir/scripts"
printf 'package="stuck"\nversion="1.0"\narch="noarch"\n' >"$stuck_dir/INFO"
printf '#!/bin/sh\n[ "$1" = start ] || exit 3\nsleep 600 &\nwait\n' \
    >"$stuck_dir/scripts/start-stop-status"
chmod 755 "$stuck_dir/scripts/start-stop-status"
"$zpk" build "$stuck_dir" -o "$root/srv/stuck-1.0.zpk" >/dev/null ||
    { echo "FAIL: zpk build stuck"; exit 1; }
# The upgrade comes from a trusted source, published as a publisher does.
mv "$root/srv/ticker-1.1.zpk" "$root/srv/repo/"
(
    cd "$work" || exit 1
    for key in root timestamp catalog publisher; do "$zpk" keygen "$key" >/dev/null || exit 1; done
    "$zpk" sign "$root/srv/repo/ticker-1.1.zpk" publisher.key >/dev/null &&
        "$zpk" source new "$root/srv/repo" --id ticker-source --root-key root.pub \
            --timestamp-key timestamp.pub --catalog-key catalog.pub \
            --publisher 'publisher.pub=*' >/dev/null &&
        "$zpk" root sign "$root/srv/repo/1.root.draft" root.key >/dev/null &&
        "$zpk" release "$root/srv/repo" --catalog-key catalog.key \
            --timestamp-key timestamp.key >/dev/null
) || { echo "FAIL: zpk could not publish the source"; exit 1; }
pin=$(sha256sum "$root/srv/repo/1.root" | cut -d' ' -f1)
echo "quorserver file:///srv/repo/ root=$pin" >"$root/etc/quorpkg/sources"
echo 'auto_upgrade="all"' >"$root/etc/quorpkg/settings"
mkdir -p "$root/volume1"

systemd-nspawn -D "$root" --boot --register=no --keep-unit --quiet \
    -M "quortest$$" >"$work/console.log" 2>&1 </dev/null &
nspawn=$!
init=
for _ in $(seq 300); do
    kill -0 "$nspawn" 2>/dev/null || break
    init=$(pgrep -P "$(pgrep -P "$nspawn" | head -n 1)" -x systemd 2>/dev/null ||
        pgrep -P "$nspawn" -x systemd)
    [ -n "$init" ] && break
    sleep 0.1
done
[ -n "$init" ] || skip "systemd-nspawn could not boot the container: $(tail -n 3 "$work/console.log")"
inside() { nsenter -t "$init" -a -- env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }
alive() { inside sh -c "kill -0 $1" 2>/dev/null; }
# Its bus comes up a moment after init starts; then --wait waits for the boot.
for _ in $(seq 300); do
    state=$(timeout 60 nsenter -t "$init" -a systemctl is-system-running --wait 2>&1)
    case "$state" in running | degraded) break ;; esac
    sleep 0.2
done
case "$state" in
running | degraded) ;;
*) skip "the container's systemd did not come up ($state)" ;;
esac

out=$(inside quorpkg install /srv/ticker-1.0.zpk) || fail "install: $out"
inside quorpkg status ticker >/dev/null || fail "ticker 1.0 is not running after its install"
# The nightly check, as the timer starts it; systemctl waits for the oneshot.
inside systemctl start quorpkg-upgrade.service || fail "quorpkg-upgrade.service failed"
[ "$(inside quorpkg version ticker)" = "1.1" ] || fail "the upgrade unit did not upgrade ticker"
sleep 1
var="$root/var/packages/ticker/var"
pid=$(cat "$var/tickerd.pid" 2>/dev/null)
if inside quorpkg status ticker >/dev/null && alive "$pid"; then
    echo "tickerd $pid outlived quorpkg-upgrade.service"
else
    fail "tickerd ${pid:-?} restarted by the upgrade died with quorpkg-upgrade.service"
fi
grep -qE '^0::/system.slice/quorpkg-pkg-ticker-[0-9a-f]{8}\.scope$' "$var/start.cgroup" ||
    fail "the start did not run in a scope of its own: $(cat "$var/start.cgroup")"
# Exactly the documented variables (PWD is the shell's own).
names=$(grep -v '^PWD=' "$var/start.env" | cut -d= -f1 | tr '\n' ' ')
expected="PATH QUOR_PKG_CONF QUOR_PKG_EVENT QUOR_PKG_LOCK_HELD QUOR_PKG_LOG QUOR_PKG_NAME QUOR_PKG_PARAM "
expected+="QUOR_PKG_TARGET QUOR_PKG_VAR QUOR_PKG_VERSION QUOR_ROOT "
[ "$names" = "$expected" ] || fail "the start's environment: $names"

inside quorpkg stop ticker >/dev/null || fail "stop ticker"
for _ in $(seq 50); do alive "$pid" || break; sleep 0.1; done
alive "$pid" && fail "tickerd $pid still runs after the stop"
# The scope goes with its last process (the loop's last sleep).
scopes() { inside systemctl list-units --plain --no-legend 'quorpkg-pkg-*' | grep .; }
for _ in $(seq 50); do scopes >/dev/null || break; sleep 0.1; done
if scopes >/dev/null; then
    fail "a package scope outlived its daemon: $(inside systemctl list-units 'quorpkg-pkg-*')"
fi

# The boot unit starts the enabled packages in scopes too: a scope ordered
# before the unit that is starting it must not wait for that unit. Stopping
# the unit stops them through their scripts.
inside quorpkg start ticker >/dev/null && inside quorpkg pause ticker >/dev/null ||
    fail "start and pause ticker"
timeout 60 nsenter -t "$init" -a systemctl start quorpkg.service ||
    fail "quorpkg.service did not start"
pid=$(cat "$var/tickerd.pid" 2>/dev/null)
alive "$pid" || fail "quorpkg.service did not start ticker"
grep -q '^0::/system.slice/quorpkg-pkg-ticker-' "$var/start.cgroup" ||
    fail "the boot start did not run in a scope: $(cat "$var/start.cgroup")"
inside systemctl stop quorpkg.service || fail "quorpkg.service did not stop"
alive "$pid" && fail "stopping quorpkg.service left tickerd $pid running"

# Past script_timeout the start's whole process group is killed, in its
# scope as without one: the start fails (the install stands) and the scope
# goes with its processes.
echo 'script_timeout="1"' >>"$root/etc/quorpkg/settings"
inside quorpkg install /srv/stuck-1.0.zpk >/dev/null || fail "install stuck"
grep -q 'start-stop-status start timed out after 1 s' "$root/var/log/packages/stuck.log" ||
    fail "the stuck start was not timed out: $(cat "$root/var/log/packages/stuck.log")"
for _ in $(seq 50); do scopes >/dev/null || break; sleep 0.1; done
scopes >/dev/null && fail "the stuck start left its scope: $(scopes)"

[ "$failures" -eq 0 ] || exit 1
echo "daemons outlive the upgrade unit under systemd"
