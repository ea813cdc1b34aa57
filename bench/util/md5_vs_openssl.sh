#!/usr/bin/env bash
# Usage: bench/util/md5_vs_openssl.sh BUILD_DIR
#
# Hashes one 256 MiB file with `openssl dgst -md5` and with FileMD5HashCreateWithPath (through
# `tavo_md5_bench --hash`, 8192-byte chunks as the download check reads), takes the best of RUNS
# (default 5) wall-clock times of each, and prints both throughputs, their ratio (target: at least
# 0.9) and the peak RSS of hashing the big file and a 1 KiB one. Builds nothing: build the
# tavo_md5_bench target in BUILD_DIR first.
set -euo pipefail

build=${1:?usage: $0 BUILD_DIR}
bin="$build/bench/util/tavo_md5_bench"
if [[ ! -x $bin ]]; then
  echo "$bin not found: build the tavo_md5_bench target first" >&2
  exit 1
fi
command -v openssl > /dev/null || { echo "openssl not found" >&2; exit 1; }
runs=${RUNS:-5}
size=$((256 * 1024 * 1024))

dir=/dev/shm
[[ -d $dir && -w $dir ]] || dir=${TMPDIR:-/tmp}
file=$(mktemp "$dir/tavo-md5-XXXXXX")
small=$(mktemp "$dir/tavo-md5-small-XXXXXX")
trap 'rm -f "$file" "$small"' EXIT
head -c "$size" /dev/urandom > "$file"
head -c 1024 /dev/urandom > "$small"

# Prints the fastest of $runs wall-clock times of the command, in nanoseconds.
best_ns() {
  local best="" start end elapsed
  for ((i = 0; i < runs; i++)); do
    start=$(date +%s%N)
    "$@" > /dev/null 2>&1
    end=$(date +%s%N)
    elapsed=$((end - start))
    if [[ -z $best || $elapsed -lt $best ]]; then best=$elapsed; fi
  done
  echo "$best"
}

expected=$(openssl dgst -md5 -r "$file" | cut -d' ' -f1)
actual=$("$bin" --hash "$file" 2> /dev/null | cut -d' ' -f1)
if [[ $expected != "$actual" ]]; then
  echo "digest mismatch: openssl $expected, libtavo $actual" >&2
  exit 1
fi

openssl_ns=$(best_ns openssl dgst -md5 "$file")
tavo_ns=$(best_ns "$bin" --hash "$file")

rss_of() {  # peak RSS in KiB of hashing $1 with our driver
  "$bin" --hash "$1" 2>&1 > /dev/null | sed -n 's/^peak RSS \([0-9]*\) KiB$/\1/p'
}

awk -v size="$size" -v o="$openssl_ns" -v t="$tavo_ns" -v runs="$runs" -v dir="$dir" \
    -v big="$(rss_of "$file")" -v little="$(rss_of "$small")" 'BEGIN {
  mib = size / 1048576
  printf "file: %d MiB in %s, best of %d runs, digest checked against openssl\n", mib, dir, runs
  printf "openssl dgst -md5           %8.1f MiB/s  (%.3f s)\n", mib / (o / 1e9), o / 1e9
  printf "FileMD5HashCreateWithPath   %8.1f MiB/s  (%.3f s)\n", mib / (t / 1e9), t / 1e9
  printf "ratio libtavo/openssl       %8.3f  (target >= 0.9)\n", o / t
  printf "peak RSS hashing 256 MiB: %d KiB; hashing 1 KiB: %d KiB\n", big, little
}'
