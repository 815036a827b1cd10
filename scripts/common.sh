# Shell helpers shared by the demo and benchmark scripts; source it.
#   top       the project folder
#   QUORPKG   the quorpkg binary, ZPK the zpk binary (built when missing)

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Sets QUORPKG and ZPK from the arguments, the environment or build/, and
# builds them (after installing what the build needs) when they are missing.
quor_tools() {
  QUORPKG=${1:-${QUORPKG:-$top/build/quorpkg}}
  ZPK=${2:-${ZPK:-$top/build/tools/zpk}}
  if [ ! -x "$QUORPKG" ] || [ ! -x "$ZPK" ]; then
    "$top/scripts/setup.sh"
    echo "building quorpkg and zpk in $top/build (a few minutes)..." >&2
    local started=$SECONDS
    cmake -S "$top" -B "$top/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUOR_BUILD_TESTS=OFF \
      >/dev/null
    cmake --build "$top/build" -j"$(nproc)" --target quorpkg zpk >/dev/null
    echo "built in $((SECONDS - started)) s" >&2
    QUORPKG=$top/build/quorpkg ZPK=$top/build/tools/zpk
  fi
  QUORPKG=$(realpath "$QUORPKG") ZPK=$(realpath "$ZPK")
  export QUORPKG ZPK
}

# Makes the device folder $QUOR_ROOT (a new temporary one when unset or
# given as $1) with two volumes.
quor_device() {
  export QUOR_ROOT=${1:-${QUOR_ROOT:-$(mktemp -d /tmp/quor-device.XXXXXX)}}
  mkdir -p "$QUOR_ROOT/volume1" "$QUOR_ROOT/volume2" "$QUOR_ROOT/etc/quorpkg"
}

# The demo publisher's key pair (made once per device, beside its package
# files) and the device's trust in it; sets SIGN_KEY to the private key.
quor_publisher_key() {
  local dir=$QUOR_ROOT/zpk
  mkdir -p "$dir" "$QUOR_ROOT/etc/quorpkg/keys"
  [ -f "$dir/publisher.key" ] || (cd "$dir" && "$ZPK" keygen publisher >/dev/null)
  cp "$dir/publisher.pub" "$QUOR_ROOT/etc/quorpkg/keys/"
  SIGN_KEY=$dir/publisher.key
}

# Shows a quorpkg command as typed, everything it prints, then its status.
run() {
  echo "\$ quorpkg $*"
  local status=0
  "$QUORPKG" "$@" || status=$?
  echo "[exit $status]"
  echo
}

# Shows a zpk command as typed (paths relative to the current folder) and
# everything it prints.
zrun() {
  echo "\$ zpk $*"
  "$ZPK" "$@" 2>&1
  echo
}

# Serves $1 in place of the served file $2, dated a second after the file it
# replaces: web servers answer a conditional request by that date, and an
# older one would make the device keep what it has.
replace_served() {
  local before
  before=$(stat -c %Y "$2")
  cp "$1" "$2"
  touch -d "@$((before + 1))" "$2"
}

# Shows the platform's reason for the refusal just shown: the last line of
# its log.
reason() {
  echo "\$ tail -n ${1:-1} /var/log/quorpkg.log"
  tail -n "${1:-1}" "$QUOR_ROOT/var/log/quorpkg.log" 2>/dev/null || echo "(no log)"
  echo
}

# Shows a file of the device as the command that reads it.
show() {
  echo "\$ cat ${1#"$QUOR_ROOT"}"
  cat "$1" 2>/dev/null || echo "(no such file)"
  echo
}

# Serves folder $1 over HTTP on 127.0.0.1 (python3's http.server, log in $2)
# and sets server_pid and port; stop_http_server ends it.
server_pid=
port=
start_http_server() {
  python3 -u -m http.server 0 --bind 127.0.0.1 --directory "$1" >"$2" 2>&1 &
  server_pid=$!
  port=
  for _ in $(seq 200); do
    port=$(sed -n 's/.* port \([0-9]*\) .*/\1/p' "$2" | head -n1)
    [ -n "$port" ] && (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return 0
    port=
    sleep 0.05
  done
  echo "the HTTP server did not start" >&2
  cat "$2" >&2
  return 1
}

stop_http_server() {
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
    server_pid=
  fi
}

# For benchmarks: the tools, hyperfine, and a fresh work folder $1 with a
# results/ folder (sets work and results). BENCH_REUSE=1 keeps the folder
# of an earlier run, for the scripts that can reuse what it holds.
bench_setup() {
  quor_tools
  command -v hyperfine >/dev/null || apt-get install -y -qq hyperfine
  work=$1
  [ "${BENCH_REUSE:-0}" = 1 ] || rm -rf "$work"
  mkdir -p "$work"
  results=$work/results
  rm -rf "$results" && mkdir -p "$results"
}
