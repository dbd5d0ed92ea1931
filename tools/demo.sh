#!/usr/bin/env bash
# Builds zord and the modem simulator and runs them together in a throw-away
# root on this machine: shows the daemon's log, what it asked the modem, and
# how it ends on SIGTERM.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset default >/dev/null
cmake --build --preset default --target zord atsw-sim >/dev/null

root=$(mktemp -d /tmp/zord-demo.XXXXXX)
sim_pid=""
cleanup() {
  [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null
  rm -rf "$root"
}
trap cleanup EXIT
mkdir -p "$root/tmp/logs"
log="$root/tmp/logs/zord-vvm-app.log"
export ZORD_ROOT="$root" ZORD_PORT="${ZORD_PORT:-16666}" PATH="$PWD/tools/uci-sim:$PATH"

# The simulator reads control commands from a pipe held open on descriptor 3.
mkfifo "$root/sim.ctl"
build/default/tools/atsw-sim/atsw-sim <"$root/sim.ctl" >"$root/sim.out" 2>"$root/sim.err" &
sim_pid=$!
exec 3>"$root/sim.ctl"
echo "wan4 192.0.2.10" >&3
for _ in $(seq 100); do
  [ -S "$root/tmp/atsw12" ] && break
  sleep 0.1
done

echo "== zord with ZORD_ROOT=$ZORD_ROOT ZORD_PORT=$ZORD_PORT, atsw-sim beside it"
build/default/core/zord &
pid=$!
for _ in $(seq 100); do
  grep -q 'ZOR main finished tarting threads' "$log" 2>/dev/null && break
  sleep 0.1
done
cat "$root/sim.err"
echo "== $log"
cat "$log"

echo "== commands the modem received (connection, text):"
echo "record" >&3
for _ in $(seq 50); do
  [ "$(grep -c '^ok$' "$root/sim.out")" -ge 2 ] && break
  sleep 0.1
done
record=$(sed -n '/^ok$/,$p' "$root/sim.out" | sed '1d;$d')
echo "${record:-(none yet)}"

echo "== sending SIGTERM to zord ($pid)"
kill -TERM "$pid"
status=0
wait "$pid" || status=$?
echo "== last entry:"
tail -n 1 "$log"
echo "== exit status $status"
