#!/usr/bin/env bash
# Downloads a file through a server that breaks the connection every CUT_MIB, once with
# `tavo download --resume`, once with curl --continue-at - in a retry loop that waits 1 s between
# attempts as the runtime does, and prints each one's time and the body bytes the server sent.
# Usage: bench/protocol/resume_vs_curl.sh [BUILD_DIR]   (SIZE_MIB=512 CUT_MIB=64)
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
size_mib=${SIZE_MIB:-512}
cut_mib=${CUT_MIB:-64}
tavo=$build/tools/tavo/tavo
server=$build/bench/protocol/tavo_bench_resume_server
for target in "$tavo" "$server"; do
  [ -x "$target" ] || cmake --build "$build" --target "$(basename "$target")"
done

work=$(mktemp -d /dev/shm/tavo-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT
head -c $((size_mib << 20)) /dev/urandom > "$work/file.bin"
hash=$(md5sum "$work/file.bin" | cut -d' ' -f1)
attempts=$(( size_mib / cut_mib + 2 ))

run() {  # LABEL COMMAND...: time and bytes sent for one download through a fresh server
  local label=$1
  shift
  coproc SERVER { "$server" "$work/file.bin" $((cut_mib << 20)); }
  local port
  read -r _ port <&"${SERVER[0]}"
  local url="http://127.0.0.1:$port/file.bin"
  local start=$(date +%s.%N)
  "$@" "$url"
  local seconds=$(echo "$(date +%s.%N) - $start" | bc)
  echo sent >&"${SERVER[1]}"
  local sent
  read -r sent <&"${SERVER[0]}"
  exec {SERVER[1]}>&-
  wait "$SERVER_PID" || true
  printf '%-6s %6.2f s, %d bytes sent (%.3f of the file)\n' "$label" "$seconds" "$sent" \
    "$(echo "$sent / ($size_mib * 1048576)" | bc -l)"
}

tavo_download() {
  rm -rf "$work/root"
  "$tavo" download --root "$work/root" --app bench --version 1 --url "$1" --hash "$hash" \
    --resume "$attempts" >/dev/null
}
curl_download() {
  rm -f "$work/curl.bin"
  until curl -sf --continue-at - -o "$work/curl.bin" "$1"; do sleep 1; done
}

echo "${size_mib} MiB, cut every ${cut_mib} MiB"
run tavo tavo_download
run curl curl_download
