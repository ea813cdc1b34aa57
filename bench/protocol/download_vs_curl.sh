#!/usr/bin/env bash
# Downloads the same file from a local server with `curl -s -o` and with tavo_download_driver
# (ZMSingleThreadFileDownloader), both into /dev/shm (the driver's temporary file too, so its
# final move is a rename), and prints the best of several runs and the ratio. Every download of
# the library also computes the file's MD5 as it writes (for the package check), so it is also
# set beside curl followed by md5sum. The served file is
# in /dev/shm as well. Usage: bench/protocol/download_vs_curl.sh [BUILD_DIR]   (SIZE_MIB=512 RUNS=5)
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
size_mib=${SIZE_MIB:-512}
runs=${RUNS:-5}
driver=$build/bench/protocol/tavo_download_driver
server=$build/bench/protocol/tavo_bench_file_server
for target in "$driver" "$server"; do
  [ -x "$target" ] || cmake --build "$build" --target "$(basename "$target")"
done

work=$(mktemp -d /dev/shm/tavo-bench-XXXXXX)
server_pid=
cleanup() {
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$work/serve" "$work/curl" "$work/tavo"
head -c $((size_mib << 20)) /dev/urandom > "$work/serve/file.bin"

# Served by tavo_bench_file_server (cpp-httplib, streaming from a mapping of the file), which
# outruns both clients, so that the server is not what is measured.
"$server" "$work/serve/file.bin" > "$work/server.log" 2>&1 &
server_pid=$!
for _ in $(seq 100); do grep -q '^port ' "$work/server.log" 2>/dev/null && break; sleep 0.05; done
port=$(awk '/^port /{print $2}' "$work/server.log")
[ -n "$port" ] || { cat "$work/server.log"; exit 1; }
url="http://127.0.0.1:$port/file.bin"

now() { date +%s.%N; }
results=()
for i in $(seq "$runs"); do
  rm -f "$work/curl/file.bin" "$work/tavo/file.bin"
  t0=$(now); curl -s -o "$work/curl/file.bin" "$url"; t1=$(now)
  md5sum "$work/curl/file.bin" > /dev/null; t1m=$(now)
  "$driver" "$url" "$work/tavo/file.bin"; t2=$(now)
  results+=("$t0 $t1 $t1m $t2")
  awk -v i="$i" -v a="$t0" -v b="$t1" -v m="$t1m" -v c="$t2" \
    'BEGIN { printf "run %d: curl %.3f s (+ md5sum %.3f s), tavo %.3f s\n", i, b - a, m - b, c - m }'
done
cmp "$work/serve/file.bin" "$work/curl/file.bin"
cmp "$work/serve/file.bin" "$work/tavo/file.bin"
printf '%s\n' "${results[@]}" | awk -v mib="$size_mib" -v runs="$runs" '
  { c = $2 - $1; cm = $3 - $1; t = $4 - $3
    if (NR == 1 || c < bc) bc = c
    if (NR == 1 || cm < bcm) bcm = cm
    if (NR == 1 || t < bt) bt = t }
  END {
    printf "%d MiB over loopback into /dev/shm, best of %d\n", mib, runs
    printf "curl -s -o            %.3f s  (%.0f MiB/s)\n", bc, mib / bc
    printf "curl -s -o + md5sum   %.3f s\n", bcm
    printf "tavo_download_driver  %.3f s  (%.0f MiB/s, with the MD5)\n", bt, mib / bt
    printf "ratio tavo/curl       %.3f\n", bt / bc
    printf "ratio tavo/(curl+md5sum) %.3f\n", bt / bcm }'
