#!/usr/bin/env bash
# First tavo_bench_idle_clients holds 1,000 idle and 64 slow-header connections against a fresh
# `tavo serve` and prints how fast a new client is answered and the service's peak memory. Then
# the plug-in url query against `tavo serve`, beside nginx answering the same POST with the same
# reply bytes from its configuration, on the same machine: `wrk` with 64 keep-alive clients for
# DURATION seconds against each, then requests per second, p99 latency and the ratio.
# tavo serve logs each request (to /dev/null here); nginx's access log is off.
# Usage: bench/protocol/serve_vs_nginx.sh [BUILD_DIR]   (DURATION=10 CONNECTIONS=64)
set -euo pipefail
cd "$(dirname "$0")/../.."
source bench/protocol/tavo_serve.sh
build=${1:-build}
duration=${DURATION:-10}
connections=${CONNECTIONS:-64}
tavo=$build/tools/tavo/tavo
idle=$build/bench/protocol/tavo_bench_idle_clients
for target in "$tavo" "$idle"; do
  [ -x "$target" ] || cmake --build "$build" --target "$(basename "$target")"
done
for tool in wrk /usr/sbin/nginx curl; do
  command -v "$tool" >/dev/null || { echo "needs $tool (scripts/setup.sh installs it)"; exit 1; }
done

work=$(mktemp -d /dev/shm/tavo-bench-XXXXXX)
serve_pid=
nginx_pid=
cleanup() {
  for pid in $serve_pid $nginx_pid; do kill -INT "$pid" 2>/dev/null && wait "$pid" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT

mkdir -p "$work/pk" "$work/nginx"
for name in bench physics audio net; do head -c 65536 /dev/urandom > "$work/pk/${name}_1.0.zip"; done
start_tavo_serve "$work/pk"
port=${base%/ced}
port=${port##*:}

# The body as the runtime writes it (pairs in order, values raw, the list last), and the reply.
printf '%s' 'client_id=merin&device_id=bench&app_bundle_id=tavo&client_version=1.0.0&cpu_abi=x86_64&os=iOS&os_version=12&plugin_list=[
  {
    "plugin_id" : "bench",
    "version" : "1.0"
  }
]' > "$work/body"
curl -s --data-binary @"$work/body" "$base/runtime/plugin/url" > "$work/reply"
grep -q '"code":200' "$work/reply" || { cat "$work/reply"; exit 1; }
# Before any load, so that the peak memory is that of the held connections.
"$idle" "$port" "$serve_pid"

# nginx on a port below the ephemeral range, another one if that is taken.
for _ in 1 2 3 4 5; do
  nginx_port=$(( 20000 + RANDOM % 10000 ))
  cat > "$work/nginx/nginx.conf" <<CONF
daemon off;
worker_processes auto;
pid $work/nginx/nginx.pid;
events { worker_connections 4096; }
http {
  access_log off;
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  server {
    listen 127.0.0.1:$nginx_port;
    location = /ced/runtime/plugin/url {
      default_type application/json;
      return 200 '$(cat "$work/reply")';
    }
  }
}
CONF
  /usr/sbin/nginx -p "$work/nginx" -e "$work/nginx/error.log" -c "$work/nginx/nginx.conf" &
  nginx_pid=$!
  for _ in $(seq 100); do
    curl -s -o /dev/null "http://127.0.0.1:$nginx_port/" && break 2
    kill -0 "$nginx_pid" 2>/dev/null || break
    sleep 0.05
  done
  kill "$nginx_pid" 2>/dev/null || true
  wait "$nginx_pid" 2>/dev/null || true
  nginx_pid=
done
[ -n "$nginx_pid" ] || { echo "nginx did not start"; cat "$work/nginx/error.log"; exit 1; }

cat > "$work/post.lua" <<LUA
wrk.method = "POST"
wrk.headers["Content-Type"] = "application/x-www-form-urlencoded"
local file = io.open("$work/body", "rb")
wrk.body = file:read("*a")
file:close()
LUA

# Prints "<requests per second> <p99 in ms>" for one wrk run.
measure() {
  wrk -t2 -c"$connections" -d"${duration}s" --latency -s "$work/post.lua" "$1" > "$work/wrk.out"
  awk '
    function ms(v) { if (v ~ /us$/) return v / 1000; if (v ~ /ms$/) return v + 0; return v * 1000 }
    /Requests\/sec:/ { rate = $2 }
    /^ +99%/ { p99 = ms($2) }
    /Non-2xx/ { bad = $NF }
    END { if (bad) { print "non-2xx replies: " bad > "/dev/stderr"; exit 1 } printf "%s %.3f\n", rate, p99 }
  ' "$work/wrk.out"
}
read -r tavo_rate tavo_p99 < <(measure "$base/runtime/plugin/url")
read -r nginx_rate nginx_p99 < <(measure "http://127.0.0.1:$nginx_port/ced/runtime/plugin/url")
printf 'url query (%d-byte body, %d-byte reply), %d keep-alive clients, %d s each, %d cores\n' \
  "$(wc -c < "$work/body")" "$(wc -c < "$work/reply")" "$connections" "$duration" "$(nproc)"
printf '  tavo serve  %10.0f req/s   p99 %7.3f ms\n' "$tavo_rate" "$tavo_p99"
printf '  nginx       %10.0f req/s   p99 %7.3f ms\n' "$nginx_rate" "$nginx_p99"
awk -v a="$tavo_rate" -v b="$nginx_rate" 'BEGIN { printf "  tavo serve / nginx: %.2f\n", a / b }'
