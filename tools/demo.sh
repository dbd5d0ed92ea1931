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

cmake --preset default >/dev/null
cmake --build --preset default --target zord atsw-sim zordctl >/dev/null
bin=build/default

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
export ZORD_ROOT="$root" ZORD_PORT="${ZORD_PORT:-16666}" PATH="$PWD/tools/uci-sim:$PATH"

# Waits (at most 20 s) until the file holds the text.
wait_for() {
  for _ in $(seq 200); do
    grep -qF -- "$2" "$1" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "demo: gave up waiting for \"$2\" in $1" >&2
  exit 1
}

# The simulator reads control commands from a pipe held open on descriptor 3.
mkfifo "$root/sim.ctl"
"$bin/tools/atsw-sim/atsw-sim" <"$root/sim.ctl" >"$root/sim.out" 2>&1 &
sim_pid=$!
exec 3>"$root/sim.ctl"
echo "quote off" >&3
for _ in $(seq 100); do
  [ -S "$root/tmp/atsw12" ] && break
  sleep 0.1
done

echo "== zord and atsw-sim in $ZORD_ROOT, clients on port $ZORD_PORT"
"$bin/core/zord" </dev/null >/dev/null 2>&1 &
zord_pid=$!
wait_for "$log" "Registration stat is"

zordctl="$bin/tools/zordctl/zordctl"
echo "== zordctl cell"
"$zordctl" cell
echo "== zordctl identity"
"$zordctl" identity

# The watcher comes from its own address: a new connection from the address
# of the first client would drop it.
echo "== zordctl --source 127.0.0.2 watch, while the modem changes cell, then loses service"
"$zordctl" --source 127.0.0.2 watch >"$root/watch.out" 2>"$root/watch.err" &
watch_pid=$!
wait_for "$root/watch.err" "zordctl: watching"
echo "cell 00C1 0BEEF001" >&3
wait_for "$root/watch.out" "+CEVVMEV:"
echo "deregister" >&3
wait_for "$root/watch.out" "+CEVVMEV:NULL"
cat "$root/watch.out"

echo "== the end of $log"
tail -n 12 "$log"

if [ "$keep" = 1 ]; then
  echo "register" >&3
  cat <<EOF
== still running; in another shell:
   export ZORD_ROOT=$ZORD_ROOT ZORD_PORT=$ZORD_PORT
   $zordctl cell
   echo 'cell 1A2B 01A2D101' | socat - UNIX-CONNECT:$ZORD_ROOT/tmp/atsw-sim.ctl    (needs atsw-sim's control socket, see README)
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
