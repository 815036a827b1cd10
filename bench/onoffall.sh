#!/usr/bin/env bash
# Service benchmarks, each a ratio measured side by side in one run:
#   onoffall start of 40 packages (dependency depth 4, each start 0.2 s)
#       with parallel_jobs at its default (the dependency graph's width) vs 1
#   onoffall stop of the same 40 packages, default vs 1
#   quorpkg status of a running package vs running its status script alone
#   quorpkg status vs quorpkg is_onoff (a query that runs no script)
# Writes its section of bench/RESULTS.md. Needs hyperfine and a build in build/.
#
#   bench/onoffall.sh [WORK_DIR]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../scripts/common.sh"
bench_setup "${1:-$here/work/onoffall}"
quorpkg=$QUORPKG zpk=$ZPK
mkdir -p "$work/zpk"

# Four levels of ten packages; each package of levels 2 to 4 needs two of
# the level below, so a level can start only when the one below is up.
name() { printf 'svc%d%d' "$1" "$2"; }
echo "== building 40 service packages"
for level in 1 2 3 4; do
  for i in 0 1 2 3 4 5 6 7 8 9; do
    src=$work/src/$(name $level $i)
    mkdir -p "$src/package" "$src/scripts"
    printf 'package="%s"\nversion="1.0"\n' "$(name $level $i)" > "$src/INFO"
    if [ $level -gt 1 ]; then
      printf 'install_dep_packages="%s:%s"\n' "$(name $((level - 1)) $i)" \
        "$(name $((level - 1)) $(( (i + 1) % 10 )))" >> "$src/INFO"
    fi
    echo "$(name $level $i)" > "$src/package/README"
    cat > "$src/scripts/start-stop-status" <<'EOF'
#!/bin/sh
state="$QUOR_PKG_VAR/up"
case "$1" in
  start) sleep 0.2; mkdir -p "$QUOR_PKG_VAR"; touch "$state" ;;
  stop) rm -f "$state" ;;
  status) [ -f "$state" ] && exit 0; exit 3 ;;
esac
exit 0
EOF
    chmod +x "$src/scripts/start-stop-status"
    "$zpk" build "$src" -o "$work/zpk/$(name $level $i).zpk" >/dev/null
  done
done

# Two devices with the same packages: one at the default parallel_jobs,
# one at 1. The commands name them relative to $work, where they run.
echo "== installing them into two devices"
cd "$work"
parallel=jobs-default
serial=jobs-1
for device in "$parallel" "$serial"; do
  mkdir -p "$device/volume1"
  for f in $(QUOR_ROOT=$device "$quorpkg" sort_zpk_by_dep_order "$work"/zpk/*.zpk); do
    QUOR_ROOT=$device "$quorpkg" install "$f" >/dev/null
  done
done
printf 'parallel_jobs="1"\n' > "$serial/etc/quorpkg/settings"

on() { echo "env QUOR_ROOT=$1 $quorpkg onoffall $2"; }
hyperfine -N --runs 5 --export-json "$results/onoffall-start.json" \
  --prepare "$(on "$parallel" stop)" --prepare "$(on "$serial" stop)" \
  "$(on "$parallel" start)" "$(on "$serial" start)"
hyperfine -N --runs 5 --export-json "$results/onoffall-stop.json" \
  --prepare "$(on "$parallel" start)" --prepare "$(on "$serial" start)" \
  "$(on "$parallel" stop)" "$(on "$serial" stop)"

echo "== status against its script alone"
QUOR_ROOT=$parallel "$quorpkg" onoffall start >/dev/null
pkg=$work/$parallel/var/packages/svc40
hyperfine -N --warmup 5 --export-json "$results/status.json" \
  "env QUOR_ROOT=$parallel $quorpkg status svc40" \
  "env -i QUOR_PKG_VAR=$pkg/var $pkg/scripts/start-stop-status status"
# The same against a query that runs no script: what the tool costs itself.
hyperfine -N --warmup 5 --export-json "$results/status-vs-query.json" \
  "env QUOR_ROOT=$parallel $quorpkg status svc40" "env QUOR_ROOT=$parallel $quorpkg is_onoff svc40"
QUOR_ROOT=$parallel "$quorpkg" onoffall stop >/dev/null

python3 "$here/record.py" "Services" "$results" onoffall-start.json onoffall-stop.json status.json \
  status-vs-query.json
