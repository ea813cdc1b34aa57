#!/usr/bin/env bash
# Peak resident memory of the whole game cycle in one process (tavo_cycle_driver: download with
# MD5 and signature check, then install with the signature checked again) of a 1 GiB package
# (SIZE_MIB) of incompressible files: unsigned, signed with minisign's prehashed algorithm (the
# default, target under 64 MiB as for an unsigned download), and signed with the legacy one, whose
# Ed25519 takes the whole package at once, so the package is mapped. Prints seconds and peak RSS.
# Usage: bench/signed_memory.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
size_mib=${SIZE_MIB:-1024}
driver=$build/bench/tavo_cycle_driver
server=$build/bench/protocol/tavo_bench_file_server
for target in "$driver" "$server"; do
  [ -x "$target" ] || cmake --build "$build" --target "$(basename "$target")"
done
for tool in minisign zip md5sum /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "needs $tool" >&2; exit 1; }
done

# On disk, not in /dev/shm: the package, its download and its installed copy make three.
work=$(mktemp -d "${TMPDIR:-/tmp}/tavo-signed-XXXXXX")
server_pid=
cleanup() {
  if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

mkdir -p "$work/src"
for i in $(seq 8); do head -c $((size_mib << 17)) /dev/urandom > "$work/src/part$i.bin"; done
echo '{"deviceOrientation":"portrait"}' > "$work/src/game.config.json"
(cd "$work/src" && zip -q -0 -r "$work/game.zip" .)
rm -rf "$work/src"
hash=$(md5sum "$work/game.zip" | cut -d' ' -f1)
minisign -G -W -p "$work/key.pub" -s "$work/key.sec" > /dev/null
key=$(sed -n 2p "$work/key.pub")

cycle() {  # cycle NAME [SIGNATURE]: serves the package (and SIGNATURE), runs one cycle
  local name=$1 signature=${2:-}
  "$server" "$work/game.zip" ${signature:+"$signature"} > "$work/server.log" 2>&1 &
  server_pid=$!
  for _ in $(seq 100); do grep -q '^port ' "$work/server.log" 2>/dev/null && break; sleep 0.05; done
  local url="http://127.0.0.1:$(awk '/^port /{print $2}' "$work/server.log")/game.zip"
  rm -rf "$work/root"
  local seconds
  seconds=$(/usr/bin/time -f '%M' -o "$work/rss" "$driver" "$work/root" "$url" "$hash" \
    ${signature:+"$key"})
  kill "$server_pid"; wait "$server_pid" || true; server_pid=
  awk -v n="$name" -v s="$seconds" -v m="$(cat "$work/rss")" \
    'BEGIN { printf "  %-20s %7.3f s  peak RSS %6.1f MiB\n", n, s, m / 1024 }'
}

printf 'one cycle of a %d-byte package\n' "$(stat -c %s "$work/game.zip")"
cycle "unsigned"
minisign -S -s "$work/key.sec" -m "$work/game.zip" -x "$work/prehashed.minisig" > /dev/null
cycle "signed, prehashed" "$work/prehashed.minisig"
minisign -S -l -s "$work/key.sec" -m "$work/game.zip" -x "$work/legacy.minisig" > /dev/null
cycle "signed, legacy" "$work/legacy.minisig"
