#!/usr/bin/env bash
# The demonstration: builds zord, the modem simulator and zordctl, runs them
# together in a throw-away root on this machine, asks the daemon for the
# serving cell and the identity, watches for changes while the simulated
# modem changes cell and registration, shows the end of the daemon's log and
# stops everything it started. With --keep it leaves them running until
# Ctrl-C, for trying things by hand.
set -euo pipefail
cd "$(dirname "$0")/.."

keep=0
case "${1:-}" in
  "") ;;
  --keep) keep=1 ;;
  -h | --help)
    echo "usage: $0 [--keep]   (--keep: leave zord and atsw-sim running until Ctrl-C)"
    exit 0
    ;;
  *)
    echo "usage: $0 [--keep]" >&2
    exit 2
    ;;
esac

# Two demonstrations at once share the build: one builds, the other waits.
mkdir -p build
exec 9>build/.demo.lock
flock 9
if [ ! -f build/default/CMakeCache.txt ]; then
  echo "== configuring build/default (the first time only)"
  cmake --preset default >/dev/null
fi
echo "== building zord, atsw-sim and zordctl in build/default (about a minute the first time)"
cmake --build --preset default --target zord atsw-sim zordctl |
  grep --line-buffered -E '^\[ *[0-9]+%\] Built target' || true
flock -u 9
bin=$PWD/build/default

root=$(mktemp -d /tmp/zord-demo.XXXXXX)
log="$root/tmp/logs/zord-vvm-app.log"
sim_pid="" zord_pid="" watch_pid=""
cleanup() {
  for pid in $watch_pid $zord_pid $sim_pid; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$root"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
mkdir -p "$root/tmp/logs"

# Whether a program listens on the TCP port on this host.
port_taken() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# ZORD_PORT as given, or a free port of this run's own (another demo, or a
# zord on 6666, may be running beside this one).
if [ -n "${ZORD_PORT:-}" ]; then
  if port_taken "$ZORD_PORT"; then
    echo "demo: port $ZORD_PORT (from ZORD_PORT) is taken by another program;" \
      "unset ZORD_PORT to let the demo pick a free one" >&2
    exit 1
  fi
else
  ZORD_PORT=$((20000 + $$ % 10000))
  while port_taken "$ZORD_PORT"; do ZORD_PORT=$((ZORD_PORT + 1)); done
fi
export ZORD_ROOT="$root" ZORD_PORT PATH="$PWD/tools/uci-sim:$PATH"

# Waits (at most 20 s) until the file holds the text.
wait_for() {
  for _ in $(seq 200); do
    grep -qF -- "$2" "$1" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "demo: gave up waiting for \"$2\" in $1" >&2
  exit 1
}

sim="$bin/tools/atsw-sim/atsw-sim"
"$sim" </dev/null >"$root/sim.out" 2>&1 &
sim_pid=$!
for _ in $(seq 100); do
  [ -S "$root/tmp/atsw-sim.ctl" ] && break
  sleep 0.1
done

echo "== zord and atsw-sim in $ZORD_ROOT, clients on port $ZORD_PORT"
"$bin/core/zord" </dev/null >/dev/null 2>"$root/zord.err" &
zord_pid=$!
wait_for "$log" "Registration stat is"
if grep -q "cannot bind" "$root/zord.err"; then
  cat "$root/zord.err" >&2
  exit 1
fi

zordctl="$bin/tools/zordctl/zordctl"
echo "== zordctl cell"
"$zordctl" cell
echo "== zordctl identity"
"$zordctl" identity

echo "== zordctl watch, while the modem changes cell, then loses service"
"$zordctl" watch >"$root/watch.out" 2>"$root/watch.err" &
watch_pid=$!
wait_for "$root/watch.err" "zordctl: watching"
echo "\$ atsw-sim ctl cell 00C1 0BEEF001"
"$sim" ctl cell 00C1 0BEEF001 >/dev/null
wait_for "$root/watch.out" "+CEVVMEV:"
echo "\$ atsw-sim ctl deregister"
"$sim" ctl deregister >/dev/null
wait_for "$root/watch.out" "+CEVVMEV:NULL"
cat "$root/watch.out"

# The log's entries without the byte dumps of the AT trace.
echo "== the end of the daemon's log, $log (without its byte dumps)"
grep -aE '^[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\.[0-9]+ ' "$log" |
  grep -avE '^[0-9:.]+  [0-9A-F]{2}( |$)|pStr is initialized' | tail -n 12

if [ "$keep" = 1 ]; then
  "$sim" ctl register >/dev/null
  cat <<EOF
== still running; in another shell:
   export ZORD_ROOT=$ZORD_ROOT ZORD_PORT=$ZORD_PORT
   $zordctl cell
   $zordctl watch
   $sim ctl cell 1A2B 01A2D101
   $sim ctl help
   tail -f $log
   Ctrl-C here stops everything.
EOF
  wait "$zord_pid" || true
fi

echo "== stopping"
kill "$watch_pid"
kill -TERM "$zord_pid"
status=0
wait "$zord_pid" || status=$?
watch_pid="" zord_pid=""
echo "== zord ended with status $status: $(tail -n 1 "$log")"
