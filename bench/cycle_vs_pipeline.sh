#!/usr/bin/env bash
# The whole game cycle, download -> MD5 check -> install, of a ~200 MB package of 3,000 mixed
# files served on loopback: `tavo download` then `tavo install` (two processes), the same through
# the API in one process (tavo_cycle_driver), and the shell pipelines curl + md5sum -c + unzip
# and curl + md5sum -c + bsdtar. When minisign is installed, the two tavo cycles run once more
# with the package signed (prehashed) by a throw-away key that the runtime trusts, so that the
# signature is fetched and verified at download and again at install. Best of RUNS (default 5);
# prints times, ratios against the bsdtar pipeline, signed against unsigned, and peak resident
# memory.
# Usage: bench/cycle_vs_pipeline.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
runs=${RUNS:-5}
tavo=$build/tools/tavo/tavo
driver=$build/bench/tavo_cycle_driver
server=$build/bench/protocol/tavo_bench_file_server
for target in "$tavo" "$driver" "$server"; do
  [ -x "$target" ] || cmake --build "$build" --target "$(basename "$target")"
done
for tool in curl md5sum unzip bsdtar zip /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "needs $tool" >&2; exit 1; }
done

work=$(mktemp -d /dev/shm/tavo-cycle-XXXXXX 2>/dev/null || mktemp -d)
server_pid=
cleanup() {
  if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

# 1,000 incompressible files of 128 KiB and 2,000 text files of about 36 KB, deflated.
mkdir -p "$work/src/bin" "$work/src/text"
for i in $(seq 1000); do head -c 131072 /dev/urandom > "$work/src/bin/b$i.dat"; done
seq 1 6000 > "$work/line.txt"
for i in $(seq 2000); do cp "$work/line.txt" "$work/src/text/t$i.txt"; done
echo '{"deviceOrientation":"portrait"}' > "$work/src/game.config.json"
(cd "$work/src" && zip -q -r "$work/game.zip" .)
rm -rf "$work/src"
size=$(stat -c %s "$work/game.zip")
hash=$(md5sum "$work/game.zip" | cut -d' ' -f1)

key=
if command -v minisign >/dev/null; then
  minisign -G -W -p "$work/key.pub" -s "$work/key.sec" > /dev/null
  minisign -S -s "$work/key.sec" -m "$work/game.zip" > /dev/null
  key=$(sed -n 2p "$work/key.pub")
fi

"$server" "$work/game.zip" ${key:+"$work/game.zip.minisig"} > "$work/server.log" 2>&1 &
server_pid=$!
for _ in $(seq 100); do grep -q '^port ' "$work/server.log" 2>/dev/null && break; sleep 0.05; done
url="http://127.0.0.1:$(awk '/^port /{print $2}' "$work/server.log")/game.zip"

now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.3f", b - a }'; }
best() { sort -g | head -1; }
peak() { sort -n | tail -1; }

declare -A times rss
run() {  # run NAME COMMAND...: one timed run; peak RSS from /usr/bin/time -f %M of each process
  local name=$1; shift
  rm -rf "$work/root" "$work/out" "$work/dl.zip" "$work"/rss.*
  mkdir -p "$work/out"
  local t0; t0=$(now)
  "$@"
  times[$name]+="$(since "$t0") "
  rss[$name]+="$(cat "$work"/rss.* 2>/dev/null | peak) "
}
timed() { local tag=$1; shift; /usr/bin/time -f '%M' -o "$work/rss.$tag" "$@"; }

two_processes() {  # [--trust-key KEY]
  timed 1 "$tavo" --root "$work/root" "$@" download --app cycle --version 1 --url "$url" \
    --hash "$hash" > /dev/null
  timed 2 "$tavo" --root "$work/root" "$@" install --app cycle --version 1 \
    --package "$work/root/tmp/cycle.1.zgp" > /dev/null
}
one_process() { timed 1 "$driver" "$work/root" "$url" "$hash" "$@" > /dev/null; }
with_unzip() {
  curl -s -o "$work/dl.zip" "$url"
  echo "$hash  $work/dl.zip" | md5sum -c --quiet
  timed 1 unzip -q -o "$work/dl.zip" -d "$work/out"
}
with_bsdtar() {
  curl -s -o "$work/dl.zip" "$url"
  echo "$hash  $work/dl.zip" | md5sum -c --quiet
  timed 1 bsdtar -xf "$work/dl.zip" -C "$work/out"
}

names=("tavo download + tavo install" "the API in one process")
[ -z "$key" ] || names+=("tavo download+install, signed" "the API in one process, signed")
names+=("curl + md5sum -c + unzip" "curl + md5sum -c + bsdtar")
for _ in $(seq "$runs"); do
  run "tavo download + tavo install" two_processes
  run "the API in one process" one_process
  if [ -n "$key" ]; then
    run "tavo download+install, signed" two_processes --trust-key "$key"
    run "the API in one process, signed" one_process "$key"
  fi
  run "curl + md5sum -c + unzip" with_unzip
  run "curl + md5sum -c + bsdtar" with_bsdtar
done

reference=$(printf '%s\n' ${times["curl + md5sum -c + bsdtar"]} | best)
printf 'cycle of a %d-byte package (3,001 files), best of %d\n' "$size" "$runs"
for name in "${names[@]}"; do
  t=$(printf '%s\n' ${times[$name]} | best)
  m=$(printf '%s\n' ${rss[$name]} | peak)
  awk -v n="$name" -v t="$t" -v r="$reference" -v m="$m" \
    'BEGIN { printf "  %-30s %7.3f s  %5.2fx  peak RSS %6.1f MiB\n", n, t, t / r, m / 1024 }'
done
echo "  (peak RSS of the pipelines is that of unzip or bsdtar alone)"
if [ -n "$key" ]; then
  for pair in "tavo download+install, signed|tavo download + tavo install" \
              "the API in one process, signed|the API in one process"; do
    signed=$(printf '%s\n' ${times[${pair%%|*}]} | best)
    plain=$(printf '%s\n' ${times[${pair#*|}]} | best)
    awk -v n="${pair%%|*}" -v s="$signed" -v p="$plain" \
      'BEGIN { printf "  %-30s %+6.1f %% against unsigned\n", n, (s / p - 1) * 100 }'
  done
else
  echo "  (minisign is not installed: no signed cycle)"
fi
