#!/usr/bin/env bash
# A plug-in install of a ~100 MB package served by `tavo serve` on loopback: `tavo plugin install`
# (url query, download, MD5 check, unpack, config) beside the shell pipeline that does the same
# work (curl the url query, curl the file, md5sum -c, unzip). Best of RUNS (default 3) each;
# prints both times, their ratio and tavo's peak resident memory.
# Usage: bench/plugin/install_vs_pipeline.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
runs=${RUNS:-3}
tavo=$(realpath "$build/tools/tavo/tavo")
[ -x "$tavo" ] || cmake --build "$build" --target tavo
for tool in curl md5sum unzip zip /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "needs $tool" >&2; exit 1; }
done

work=$(mktemp -d /dev/shm/tavo-plugin-bench-XXXXXX 2>/dev/null || mktemp -d)
serve_pid=
cleanup() {
  if [ -n "$serve_pid" ]; then kill -INT "$serve_pid" 2>/dev/null || true; wait "$serve_pid" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

# 200 incompressible files of 512 KiB and 200 small text ones, stored: about 100 MB.
mkdir -p "$work/src/assets" "$work/pk"
for i in $(seq 200); do
  head -c 524288 /dev/urandom > "$work/src/assets/blob$i.bin"
  seq 1 50 > "$work/src/assets/text$i.txt"
done
(cd "$work/src" && zip -q -0 -r "$work/pk/big_1.0.zip" .)
size=$(stat -c %s "$work/pk/big_1.0.zip")

"$tavo" serve "$work/pk" > "$work/serve.url" 2> /dev/null &
serve_pid=$!
for _ in $(seq 100); do [ -s "$work/serve.url" ] && break; sleep 0.05; done
base=$(head -1 "$work/serve.url")

now() { date +%s.%N; }
best() { sort -g | head -1; }

tavo_times=() tavo_rss=()
for _ in $(seq "$runs"); do
  rm -rf "$work/root"
  t0=$(now)
  /usr/bin/time -f '%M' -o "$work/rss" "$tavo" --root "$work/root" --plugin-service "$base" \
    plugin install --provider big --version 1.0 > /dev/null
  t1=$(now)
  tavo_times+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')")
  tavo_rss+=("$(cat "$work/rss")")
done

body='client_id=(null)&device_id=(null)&app_bundle_id=bench&client_version=1&cpu_abi=x86_64&os=iOS&os_version=12&plugin_list=[{"plugin_id" : "big", "version" : "1.0"}]'
pipe_times=()
for _ in $(seq "$runs"); do
  rm -rf "$work/pipe"
  mkdir -p "$work/pipe/out"
  t0=$(now)
  reply=$(curl -s --data-binary "$body" "$base/runtime/plugin/url")
  url=$(printf '%s' "$reply" | grep -o '"url":"[^"]*"' | head -1 | cut -d'"' -f4)
  hash=$(printf '%s' "$reply" | grep -o '"hash":"[^"]*"' | head -1 | cut -d'"' -f4)
  curl -s -o "$work/pipe/p.zip" "$url"
  echo "$hash  $work/pipe/p.zip" | md5sum -c --quiet
  unzip -q -o "$work/pipe/p.zip" -d "$work/pipe/out"
  rm -f "$work/pipe/p.zip"
  t1=$(now)
  pipe_times+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')")
done

t=$(printf '%s\n' "${tavo_times[@]}" | best)
p=$(printf '%s\n' "${pipe_times[@]}" | best)
rss=$(printf '%s\n' "${tavo_rss[@]}" | sort -n | tail -1)
printf 'plug-in install of a %d-byte package (%d files), best of %d\n' "$size" 400 "$runs"
printf '  tavo plugin install                   %.3f s, peak RSS %d KiB\n' "$t" "$rss"
printf '  curl + curl + md5sum -c + unzip       %.3f s\n' "$p"
awk -v a="$t" -v b="$p" 'BEGIN { printf "  ratio (tavo / pipeline)               %.2fx\n", a / b }'
