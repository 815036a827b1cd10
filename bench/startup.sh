#!/usr/bin/env bash
# Start-up benchmark, a ratio measured side by side in one run:
#   quorpkg version P (an installed package)  vs /bin/true
# and the instructions each runs (valgrind, when installed), which the busy
# machine does not blur. Writes its section of bench/RESULTS.md.
#
#   QUORPKG=build-rel/quorpkg ZPK=build-rel/tools/zpk [BASELINE=old/quorpkg] bench/startup.sh [WORK_DIR]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../scripts/common.sh"
bench_setup "${1:-$here/work/startup}"
source "$here/helpers.sh"

install_packages "$work/device" 1 1
cd "$work"
export QUOR_ROOT=$work/device
hyperfine_pair version-vs-true -N --warmup 20 --runs 300 -- "$QUORPKG version pkg00001" /bin/true

if command -v valgrind >/dev/null; then
  instructions() {
    valgrind --tool=callgrind --callgrind-out-file=/dev/null "$@" 2>&1 >/dev/null |
      sed -n 's/.*Collected : //p'
  }
  for binary in "$QUORPKG" ${BASELINE:+"$BASELINE"}; do
    echo "- Instructions, \`${binary#"$top/"} version pkg00001\`: $(instructions "$binary" version pkg00001)." |
      tee -a "$results/notes.md"
  done
  echo "- Instructions, \`/bin/true\`: $(instructions /bin/true)." | tee -a "$results/notes.md"
  echo "- Shared objects loaded: $(ldd "$QUORPKG" | wc -l)${BASELINE:+ (baseline $(ldd "$BASELINE" | wc -l))}." |
    tee -a "$results/notes.md"
fi

python3 "$here/record.py" "Start-up" "$results" version-vs-true.json
