# Helpers of the benchmark scripts; source after scripts/common.sh and
# bench_setup.
#   BASELINE=/path/to/older/quorpkg  adds that binary's run of each first
#                                    command to every comparison ("before").

# hyperfine_pair NAME HYPERFINE_OPTIONS... -- FIRST SECOND: the two commands
# side by side in one run (and FIRST with $BASELINE when set), exported to
# $results/NAME.json.
hyperfine_pair() {
  local name=$1; shift
  local options=()
  while [ "$1" != "--" ]; do options+=("$1"); shift; done
  shift
  local commands=("$1" "$2")
  [ -z "${BASELINE:-}" ] || commands+=("${1//$QUORPKG/$BASELINE}")
  hyperfine "${options[@]}" --export-json "$results/$name.json" "${commands[@]}"
}

# same_output ROOT ARGS...: with $BASELINE set, `quorpkg ARGS...` on the
# device ROOT must print the same bytes and end with the same status with
# both binaries; notes how many bytes were compared.
same_output() {
  [ -n "${BASELINE:-}" ] || return 0
  local root=$1; shift
  local side binary status
  for side in new base; do
    binary=$QUORPKG
    [ "$side" = new ] || binary=$BASELINE
    status=0
    QUOR_ROOT=$root "$binary" "$@" > "$work/output.$side" || status=$?
    echo "status $status" >> "$work/output.$side"
  done
  cmp "$work/output.new" "$work/output.base"
  echo "- Output of \`quorpkg $*\` on ${root#"$work"/}: the same as the baseline's" \
    "($(wc -c < "$work/output.new") bytes with the status line)." | tee -a "$results/notes.md"
}

# peak_rss LABEL COMMAND...: runs COMMAND once under /usr/bin/time -v and
# adds its peak resident set size to the notes of the section.
peak_rss() {
  local label=$1; shift
  [ -x /usr/bin/time ] || apt-get install -y -qq time >/dev/null
  /usr/bin/time -v "$@" >/dev/null 2>"$work/time.txt"
  local kb
  kb=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$work/time.txt")
  echo "- Peak RSS, $label: $((kb / 1024)) MB ($kb kB)." | tee -a "$results/notes.md"
}

# install_packages DEVICE FIRST LAST: builds package files pkgNNNNN (a small
# payload, a description, every tenth with a start-stop-status script) and
# installs them into the device folder DEVICE with quorpkg, one by one
# (packages installed by an earlier run stay).
install_packages() {
  local device=$1 first=$2 last=$3 i name src
  mkdir -p "$device/volume1" "$work/zpk"
  for i in $(seq "$first" "$last"); do
    name=$(printf 'pkg%05d' "$i")
    [ ! -d "$device/var/packages/$name" ] || continue
    if [ ! -f "$work/zpk/$name.zpk" ]; then
      src=$work/src/$name
      mkdir -p "$src/package"
      printf 'package="%s"\nversion="1.0.%d"\ndescription="bench package %s"\nmaintainer="bench"\n' \
        "$name" "$i" "$name" > "$src/INFO"
      echo "$name" > "$src/package/README"
      if [ $((i % 10)) -eq 0 ]; then
        mkdir -p "$src/scripts"
        printf '#!/bin/sh\nexit 0\n' > "$src/scripts/start-stop-status"
        chmod +x "$src/scripts/start-stop-status"
      fi
      "$ZPK" build "$src" -o "$work/zpk/$name.zpk" >/dev/null
      rm -rf "$src"
    fi
    QUOR_ROOT=$device "$QUORPKG" install "$work/zpk/$name.zpk" >/dev/null
  done
}

# clone_packages DEVICE FIRST LAST: adds packages pkgNNNNN to DEVICE as
# copies of its installed pkg00001 and pkg00010 (without and with a script)
# under their own names, laid out exactly as an install leaves them.
# Installing 10,000 packages one by one takes half an hour on a busy 2-core
# machine; a listing reads the same files either way, and rebuilds the
# index (once) for the copies it has not seen.
clone_packages() {
  python3 - "$@" <<'PY'
import os, shutil, sys
device, first, last = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
packages = os.path.join(device, "var/packages")
appstore = os.path.join(device, "volume1/@appstore")
for i in range(first, last + 1):
    name = f"pkg{i:05d}"
    if os.path.exists(os.path.join(packages, name)):
        continue
    model = "pkg00010" if i % 10 == 0 else "pkg00001"
    shutil.copytree(os.path.join(appstore, model), os.path.join(appstore, name))
    dest = os.path.join(packages, name)
    shutil.copytree(os.path.join(packages, model), dest, symlinks=True)
    info = open(os.path.join(dest, "INFO")).read()
    number = int(model[3:])
    info = info.replace(model, name).replace(f'version="1.0.{number}"', f'version="1.0.{i}"')
    open(os.path.join(dest, "INFO"), "w").write(info)
    os.remove(os.path.join(dest, "target"))
    os.symlink(f"../../../volume1/@appstore/{name}", os.path.join(dest, "target"))
    with open(os.path.join(appstore, name, "README"), "w") as readme:
        readme.write(name + "\n")
PY
}
