#!/usr/bin/env bash
# The two plug-in service requests (url and hash queries) made one after another by
# tavo_plugin_requests_driver, beside the same POST (the same body bytes) made by `curl` in a
# shell loop, against `tavo serve` on loopback. Prints requests per second and p99 latency of
# each. A recording service first keeps one body of each kind, which curl then sends as it is.
# curl starts a process per request, as a script around the service would; the driver reuses
# one process and the shared session's connections, as the library does in a host.
# Usage: bench/protocol/plugin_requests_vs_curl.sh [BUILD_DIR]   (COUNT=1000)
set -euo pipefail
cd "$(dirname "$0")/../.."
source bench/protocol/tavo_serve.sh
build=${1:-build}
count=${COUNT:-1000}
driver=$build/bench/protocol/tavo_plugin_requests_driver
server=$build/bench/protocol/tavo_bench_plugin_service
tavo=$build/tools/tavo/tavo
for target in "$driver" "$server" "$tavo"; do
  [ -x "$target" ] || cmake --build "$build" --target "$(basename "$target")"
done

work=$(mktemp -d /dev/shm/tavo-bench-XXXXXX)
server_pid=
serve_pid=
cleanup() {
  [ -n "$serve_pid" ] && kill -INT "$serve_pid" 2>/dev/null && wait "$serve_pid" 2>/dev/null
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

"$server" "$work" > "$work/server.log" 2>&1 &
server_pid=$!
for _ in $(seq 100); do grep -q '^port ' "$work/server.log" 2>/dev/null && break; sleep 0.05; done
port=$(awk '/^port /{print $2}' "$work/server.log")
[ -n "$port" ] || { cat "$work/server.log"; exit 1; }
recorder="http://127.0.0.1:$port/ced"

# The service under test: the plug-ins the driver asks about, each with a package.
mkdir -p "$work/pk"
for name in bench physics audio net; do head -c 65536 /dev/urandom > "$work/pk/${name}_1.0.zip"; done
start_tavo_serve "$work/pk"

# Reads one latency in seconds per line, for requests that took `wall` seconds in all; prints
# them the way the driver does.
stats() {
  sort -g | awk -v wall="$1" '
    function at(p,   r) { r = int(p * NR + 0.999); if (r < 1) r = 1; return t[r] * 1000 }
    { t[NR] = $1 }
    END { printf "%d requests in %.3f s: %.0f req/s, p50 %.3f ms, p99 %.3f ms\n",
                 NR, wall, NR / wall, at(0.50), at(0.99) }'
}

now() { date +%s.%N; }
for kind in url hash; do
  "$driver" "$kind" "$recorder" 1 > /dev/null
  result=$("$driver" "$kind" "$base" "$count")
  body="$work/$kind.body"
  [ -s "$body" ] || { echo "no $kind body recorded"; exit 1; }
  t0=$(now)
  for _ in $(seq "$count"); do
    curl -s -o /dev/null -w '%{time_total}\n' --data-binary @"$body" "$base/runtime/plugin/$kind"
  done > "$work/$kind.curl"
  t1=$(now)
  wall=$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')
  printf '%s query, %d sequential requests over loopback\n' "$kind" "$count"
  printf '  tavo_plugin_requests_driver  %s\n' "$result"
  printf '  curl in a loop               %s\n' "$(stats "$wall" < "$work/$kind.curl")"
done
