#!/usr/bin/env bash
# Builds zord and runs it in a throw-away root on this machine: shows the log
# of its start, ends it with SIGTERM and shows how it ended.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset default >/dev/null
cmake --build --preset default --target zord >/dev/null

root=$(mktemp -d /tmp/zord-demo.XXXXXX)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/tmp/logs"
log="$root/tmp/logs/zord-vvm-app.log"

echo "== starting zord with ZORD_ROOT=$root ZORD_PORT=${ZORD_PORT:-16666}"
ZORD_ROOT="$root" ZORD_PORT="${ZORD_PORT:-16666}" build/default/core/zord &
pid=$!

for _ in $(seq 100); do
  grep -q 'ZOR main finished tarting threads' "$log" 2>/dev/null && break
  sleep 0.1
done
echo "== $log"
cat "$log"

echo "== sending SIGTERM to $pid"
kill -TERM "$pid"
status=0
wait "$pid" || status=$?
echo "== last entry:"
tail -n 1 "$log"
echo "== exit status $status"
