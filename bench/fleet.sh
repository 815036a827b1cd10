#!/usr/bin/env bash
# The update channel at fleet scale, measured in nginx's own access log:
# nginx (Debian's nginx-light, configured as docs/server.md recommends)
# serves a trusted source of 1,000 signed packages on 127.0.0.1, and
# $DEVICES device folders (200) run the daily check (chkupgradepkg) in turn:
#   - first contact, then nothing changed, then one package released (as a
#     patch, and once more without one): requests, connections and bytes per
#     check, and nginx's CPU per 1,000 unchanged checks;
#   - with BASELINE=<older quorpkg>, the same checks by that binary against
#     the plain catalog of the same folder, side by side;
#   - one mirror of three down and one stale (today's timestamp, yesterday's
#     catalog): failed checks, and what the devices kept;
#   - a staged rollout: the share of 10,000 device ids offered a version at
#     phase 5 and 50, and at phase 0 on the next check.
# Writes its section of bench/RESULTS.md.
#
#   QUORPKG=build-rel/quorpkg ZPK=build-rel/tools/zpk [BASELINE=old/quorpkg] \
#     [DEVICES=200] bench/fleet.sh [WORK_DIR]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../scripts/common.sh"
BENCH_REUSE=${BENCH_REUSE:-0} bench_setup "${1:-$here/work/fleet}"
devices=${DEVICES:-200}
command -v nginx >/dev/null || [ -x /usr/sbin/nginx ] || apt-get install -y -qq nginx-light
nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)
repo=$work/repo keys=$work/keys
nginx_pids=()
trap 'for p in "${nginx_pids[@]}"; do kill "$p" 2>/dev/null || true; done' EXIT

# serve NAME DIR: nginx for DIR, its port in $port and its pid in $nginx_pid;
# the log has "<connection> <status> <bytes sent> <request>" per request.
serve() {
  local home=$work/nginx-$1
  mkdir -p "$home/temp"
  port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  cat > "$home/nginx.conf" <<EOF
daemon off; master_process off; worker_processes 1;
pid $home/nginx.pid; error_log $home/error.log;
events { worker_connections 1024; }
http {
  log_format requests '\$connection \$status \$bytes_sent "\$request"';
  access_log $home/access.log requests;
  client_body_temp_path $home/temp/body; proxy_temp_path $home/temp/proxy;
  fastcgi_temp_path $home/temp/fastcgi; uwsgi_temp_path $home/temp/uwsgi;
  scgi_temp_path $home/temp/scgi;
  server {
    listen 127.0.0.1:$port;
    root $2;
    # As docs/server.md has it: versioned files for a year, the files that
    # change under their name asked anew each time.
    location ~ /(timestamp|root|catalog(-[^/.]+)?\.(json|hash|json\.sig))\$ {
      add_header Cache-Control "no-cache";
    }
    location ~ /(\d+\.root|catalog-[^/]+\.\d+\.(json(\.sig|\.zst)?|from-\d+\.zst)|[^/]+\.zpk)\$ {
      add_header Cache-Control "public, max-age=31536000, immutable";
    }
  }
}
EOF
  "$nginx_bin" -p "$home" -c "$home/nginx.conf" &
  nginx_pid=$!
  nginx_pids+=("$nginx_pid")
  for _ in $(seq 100); do (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return 0; sleep 0.05; done
  echo "nginx did not start: $(cat "$home/error.log")" >&2
  return 1
}

# nginx's CPU time so far, in nanoseconds.
cpu_ns() { awk '{ print $1 }' "/proc/$1/schedstat"; }

echo "== publishing 1,000 signed packages"
if [ ! -f "$repo/timestamp" ]; then
  mkdir -p "$repo" "$keys" "$work/src"
  (cd "$keys" && for k in root timestamp catalog publisher; do "$ZPK" keygen $k >/dev/null; done)
  for i in $(seq 1 1000); do
    name=$(printf 'pkg%04d' "$i") src=$work/src/pkg
    rm -rf "$src" && mkdir -p "$src/package"
    printf 'package="%s"\nversion="1.0"\ndescription="fleet package %s"\n' "$name" "$name" > "$src/INFO"
    echo "$name" > "$src/package/README"
    "$ZPK" build "$src" -o "$repo/$name-1.0.zpk" --sign "$keys/publisher.key" >/dev/null
  done
  "$ZPK" source new "$repo" --id fleet --root-key "$keys/root.pub" --timestamp-key "$keys/timestamp.pub" \
    --catalog-key "$keys/catalog.pub" --publisher "$keys/publisher.pub=*" >/dev/null
  "$ZPK" root sign "$repo/1.root.draft" "$keys/root.key" >/dev/null
fi
release() {
  "$ZPK" release "$repo" --catalog-key "$keys/catalog.key" --timestamp-key "$keys/timestamp.key" "$@" \
    >/dev/null
}
release
pin=$(sha256sum "$repo/1.root" | cut -d' ' -f1)
ls -l "$repo"/catalog-enu.*.json | tail -n 1

serve good "$repo"
good_port=$port good_pid=$nginx_pid
good_log=$work/nginx-good/access.log

# make_devices PREFIX SOURCES_LINE: $devices device folders.
make_devices() {
  for d in $(seq 1 "$devices"); do
    local dev=$work/$1$d
    rm -rf "$dev" && mkdir -p "$dev/volume1" "$dev/etc/quorpkg"
    echo "$2" > "$dev/etc/quorpkg/sources"
    printf '%032x\n' "$d" > "$dev/etc/machine-id"
  done
}

# checks CASE PREFIX BINARY LOG: every device's daily check in turn; one
# line of results/checks.tsv with the case, the mean and max requests,
# connections and bytes per check, the failed checks and nginx's CPU ms per
# 1,000 checks.
checks() {
  local case=$1 prefix=$2 binary=$3 log=$4 pid=${5:-$good_pid} failed=0 d before
  local cpu=$(cpu_ns "$pid")
  : > "$work/per-check"
  for d in $(seq 1 "$devices"); do
    before=$(wc -l < "$log")
    QUOR_ROOT=$work/$prefix$d "$binary" chkupgradepkg >/dev/null || failed=$((failed + 1))
    tail -n +"$((before + 1))" "$log" |
      awk '{ c[$1] = 1; r++; b += $3 } END { n = 0; for (k in c) n++; print r + 0, n, b + 0 }' \
        >> "$work/per-check"
  done
  local cpu_ms=$(( ($(cpu_ns "$pid") - cpu) / 1000 / devices ))
  awk -v c="$case" -v f="$failed" -v cpu="$cpu_ms" '
    { r += $1; n += $2; b += $3; if ($1 > mr) mr = $1; if ($2 > mn) mn = $2; if ($3 > mb) mb = $3 }
    END { printf "%s\t%.2f\t%d\t%.2f\t%d\t%.0f\t%d\t%d\t%d\n", c, r/NR, mr, n/NR, mn, b/NR, mb, f, cpu }' \
    "$work/per-check" | tee -a "$results/checks.tsv"
}

# busy CASE PREFIX BINARY: every device's check again, 8 at a time, as a
# server of many devices is busy: nginx's CPU per 1,000 checks when it is
# never idle long enough to go cold (an idle one pays more per request, on
# either side; see the notes).
busy() {
  local cpu=$(cpu_ns "$good_pid")
  seq 1 "$devices" | xargs -P 8 -I{} \
    sh -c 'QUOR_ROOT="$1" "$0" chkupgradepkg >/dev/null' "$3" "$work/$2{}"
  local ms=$(( ($(cpu_ns "$good_pid") - cpu) / 1000 / devices ))
  echo "$ms" > "$results/busy-$2"
  echo "- nginx CPU per 1,000 checks, $1, 8 devices at a time: $ms ms." | tee -a "$results/notes.md"
}

# new_version NAME VERSION [RELEASE OPTIONS]: a newer package released
# into the source.
new_version() {
  local src=$work/src/pkg
  rm -rf "$src" && mkdir -p "$src/package"
  printf 'package="%s"\nversion="%s"\ndescription="fleet package %s"\n' "$1" "$2" "$1" > "$src/INFO"
  echo "$1 $2" > "$src/package/README"
  "$ZPK" build "$src" -o "$repo/$1-$2.zpk" --sign "$keys/publisher.key" >/dev/null
  release "${@:3}"
}

printf 'case\trequests\tmax\tconnections\tmax\tbytes\tmax\tfailed\tnginx CPU ms per 1,000\n' \
  > "$results/checks.tsv"
echo "== $devices devices, daily checks"
make_devices dev "quorserver http://127.0.0.1:$good_port/ root=$pin"
checks "first contact" dev "$QUORPKG" "$good_log"
[ -z "${BASELINE:-}" ] || {
  make_devices base "quorserver http://127.0.0.1:$good_port/"
  checks "baseline: first contact" base "$BASELINE" "$good_log"
}
checks "nothing changed" dev "$QUORPKG" "$good_log"
checks "nothing changed, again" dev "$QUORPKG" "$good_log"
[ -z "${BASELINE:-}" ] || checks "baseline: nothing changed" base "$BASELINE" "$good_log"
busy "nothing changed" dev "$QUORPKG"
[ -z "${BASELINE:-}" ] || busy "baseline, nothing changed" base "$BASELINE"
new_version pkg0001 1.1
checks "one package released (patch)" dev "$QUORPKG" "$good_log"
[ -z "${BASELINE:-}" ] || checks "baseline: one package released" base "$BASELINE" "$good_log"
new_version pkg0002 1.1 --patches 0
checks "one package released, no patch" dev "$QUORPKG" "$good_log"

echo "== mirrors: one down, one stale, one current"
stale=$work/stale
rm -rf "$stale" && cp -a "$repo" "$stale"
serve stale "$stale"
stale_port=$port stale_pid=$nginx_pid
dead_port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
make_devices mirror "quorserver http://127.0.0.1:$dead_port/ http://127.0.0.1:$stale_port/ http://127.0.0.1:$good_port/ root=$pin"
# The first mirror is down and the second still current: it serves them.
checks "mirrors: first contact, from the second" mirror "$QUORPKG" "$work/nginx-stale/access.log" "$stale_pid"
new_version pkg0004 1.1
cp "$repo/timestamp" "$stale/timestamp"   # today's timestamp, yesterday's catalogs
checks "mirrors: one down, one stale" mirror "$QUORPKG" "$good_log"
current=$(sed -n 's/^catalog enu \([0-9]*\) .*/\1/p' "$repo/timestamp")
kept_ok=0
for d in $(seq 1 "$devices"); do
  grep -q "catalog.enu=\"$current " "$work/mirror$d"/var/lib/quorpkg/sources/*/state && kept_ok=$((kept_ok + 1))
done
echo "- Mirrors: $kept_ok of $devices devices keep catalog version $current, from the current mirror; the stale one served $(grep -c timestamp "$work/nginx-stale/access.log") timestamps and no catalog of that version ($(grep -c "catalog-enu.$current" "$work/nginx-stale/access.log") requests, all $(grep "catalog-enu.$current" "$work/nginx-stale/access.log" | awk '{print $2}' | sort -u | tr '\n' ' ')answers)." \
  | tee -a "$results/notes.md"

echo "== staged rollout, 10,000 device ids"
rollout=$work/rollout
rm -rf "$rollout" && mkdir -p "$rollout/volume1" "$rollout/etc/quorpkg"
echo "quorserver http://127.0.0.1:$good_port/ root=$pin" > "$rollout/etc/quorpkg/sources"
QUOR_ROOT=$rollout "$QUORPKG" install "$repo/pkg0005-1.0.zpk" >/dev/null
new_version pkg0005 1.1
for phase in 5 50 0; do
  "$ZPK" phase "$repo" pkg0005 1.1 "$phase" >/dev/null
  release
  QUOR_ROOT=$rollout "$QUORPKG" chkupgradepkg >/dev/null
  offered=$(python3 - "$rollout" "$QUORPKG" <<'PY'
import os, subprocess, sys
root, quorpkg = sys.argv[1], sys.argv[2]
env = dict(os.environ, QUOR_ROOT=root)
offered = 0
for i in range(10000):
    with open(os.path.join(root, "etc/machine-id"), "w") as f:
        f.write(f"{i:032x}\n")
    offered += subprocess.run([quorpkg, "checkupdate", "pkg0005"], env=env).returncode == 0
print(offered)
PY
)
  echo "$offered" > "$results/rollout-$phase"
  echo "- Staged rollout at phase $phase: $offered of 10,000 device ids offered pkg0005 1.1 ($(python3 -c "print(f'{$offered / 100:.2f}')") %)." \
    | tee -a "$results/notes.md"
done

python3 - "$results" > "$results/section.md" <<'PY'
import os, subprocess, sys
results = sys.argv[1]
rows = [line.rstrip("\n").split("\t") for line in open(os.path.join(results, "checks.tsv"))]
cpu = subprocess.run(["sh", "-c", "grep -m1 'model name' /proc/cpuinfo | cut -d: -f2"],
                     capture_output=True, text=True).stdout.strip()
date = subprocess.run(["date", "-u", "+%Y-%m-%d"], capture_output=True, text=True).stdout.strip()
lines = ["## Update channel at fleet scale", "",
         f"Machine: {cpu}, {os.cpu_count()} cores; run {date}. nginx on 127.0.0.1 serves a "
         "trusted source of 1,000 signed packages; each device folder runs `chkupgradepkg` "
         "once per case, in turn. Per check: mean and largest number of requests, TCP "
         "connections and bytes sent by nginx (headers included), from its access log; "
         "nginx's CPU time per 1,000 checks.", "",
         "| " + " | ".join(rows[0]) + " |", "|" + " --- |" * len(rows[0])]
lines += ["| " + " | ".join(row) + " |" for row in rows[1:]]
lines.append("")

# The goals, each from what the run measured.
def row(case):
    for r in rows[1:]:
        if r[0] == case:
            return [float(x) for x in r[1:]]
    return None
def read(name):
    path = os.path.join(results, name)
    return int(open(path).read()) if os.path.exists(path) else None
goals = []
unchanged = row("nothing changed")
if unchanged:
    goals.append(("nothing changed: requests, connections, bytes per check", "≤ 1, 1, ≤ 400",
                  f"{unchanged[1]:.0f}, {unchanged[3]:.0f}, {unchanged[5]:.0f}",
                  unchanged[1] <= 1 and unchanged[3] <= 1 and unchanged[5] <= 400))
for case, limit in (("one package released (patch)", 2048), ("one package released, no patch", 81920)):
    r = row(case)
    if r:
        goals.append((f"{case}: requests, connections, bytes", f"≤ 3, 1, ≤ {limit}",
                      f"{r[1]:.0f}, {r[3]:.0f}, {r[5]:.0f}", r[1] <= 3 and r[3] <= 1 and r[5] <= limit))
ours, base = read("busy-dev"), read("busy-base")
if ours is not None and base:
    goals.append(("nginx CPU per 1,000 unchanged checks / the baseline's (8 at a time)", "≤ 0.3",
                  f"{ours} / {base} ms = {ours / base:.2f}", ours / base <= 0.3))
for phase in (5, 50, 0):
    offered = read(f"rollout-{phase}")
    if offered is not None:
        share = offered / 100
        goals.append((f"staged rollout, phase {phase}: share of 10,000 device ids", f"{phase} ± 1.5",
                      f"{share:.2f}", abs(share - phase) <= 1.5 and (phase or offered == 0)))
mirrors = row("mirrors: one down, one stale")
if mirrors:
    goals.append(("one mirror down, one stale: failed checks", "0", f"{mirrors[6]:.0f}", mirrors[6] == 0))
lines += ["| goal | target | measured | met |", "| --- | --- | --- | --- |"]
lines += [f"| {name} | {target} | {value} | {'yes' if met else 'no'} |" for name, target, value, met in goals]
lines.append("")
notes = os.path.join(results, "notes.md")
if os.path.exists(notes):
    lines += open(notes).read().rstrip("\n").split("\n") + [""]
print("\n".join(lines))
PY
python3 "$here/record.py" --section "Update channel at fleet scale" "$results/section.md"
