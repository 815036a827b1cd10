#!/usr/bin/env bash
# Runs every fuzz target built in BUILD_DIR a fixed number of times from its
# seed corpus (copied, so that the inputs it finds stay out of the
# repository). A crash, a sanitizer report or a time-out fails the run and
# leaves the input in BUILD_DIR/fuzz-artifacts/ for replaying:
#   BUILD_DIR/tests/fuzz/<target> BUILD_DIR/fuzz-artifacts/<file>
# Usage: tests/fuzz/run.sh BUILD_DIR [RUNS] [SEED]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
runs=${2:-20000}
seed=${3:-1}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$build/fuzz-artifacts"
for corpus in "$here"/corpus/*/; do
  name=$(basename "$corpus")
  mkdir -p "$work/$name"
  cp "$corpus"/* "$work/$name/"
  # Each package-file input is written, read and unpacked on disk: a
  # twentieth of the runs takes about as long as the others' runs.
  n=$runs
  [ "$name" = fuzz_package ] && n=$((runs / 20))
  echo "fuzz: $name, $n runs, seed $seed"
  if ! "$build/tests/fuzz/$name" -runs="$n" -seed="$seed" -max_len=65536 -timeout=10 \
      -rss_limit_mb=2048 -artifact_prefix="$build/fuzz-artifacts/$name-" \
      "$work/$name" >"$work/$name.log" 2>&1; then
    tail -n 60 "$work/$name.log"
    echo "fuzz: $name failed (seed $seed); the input is in $build/fuzz-artifacts/" >&2
    exit 1
  fi
done
