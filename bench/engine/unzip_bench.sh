#!/usr/bin/env bash
# Times libmerin's zip extraction against `unzip -q` and `bsdtar -xf`, and a whole install of the
# same package through the runtime (`tavo install`: the runtime starts, clears the app directory,
# the engine unzips, "detail.json" and the record are written), on two packages: a few thousand
# files (~250 MB unpacked, mixed sizes, half compressible text, half random bytes), and 70,001
# small files in 700 directories (Zip64 by its entry count, written by Python's zipfile).
#
#   bench/engine/unzip_bench.sh [build dir] [rounds]
#
# The package is made once under $MERIN_BENCH_DIR (default /dev/shm/merin-bench) and kept for
# later runs; every round extracts into fresh directories there, so the disk is out of the
# picture. The best round of each tool is reported per package, with the ratio to libmerin and
# peak RSS.
set -euo pipefail

build=${1:-build}
rounds=${2:-3}
work=${MERIN_BENCH_DIR:-/dev/shm/merin-bench}
driver="$build/bench/engine/merin_unzip_driver"
tavo="$build/tools/tavo/tavo"

for tool in zip unzip bsdtar python3 /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "missing tool: $tool" >&2; exit 1; }
done
[[ -x $driver ]] || { echo "build $driver first (target merin_unzip_driver)" >&2; exit 1; }
[[ -x $tavo ]] || { echo "build $tavo first (target tavo)" >&2; exit 1; }

package="$work/package.zip"
mkdir -p "$work"
if [[ ! -f $package ]]; then
  echo "making $package ..."
  src="$work/src"
  rm -rf "$src"
  RANDOM=42
  for ((i = 0; i < 3000; i++)); do
    dir="$src/assets/group$((i % 30))/part$((i % 4))"
    mkdir -p "$dir"
    if ((i % 75 == 0)); then
      size=$(( (1 + RANDOM % 5) * 1024 * 1024 ))     # 40 large files, 1-5 MiB
    elif ((i % 5 == 0)); then
      size=$(( (32 + RANDOM % 336) * 1024 ))          # ~560 medium files, 32-368 KiB
    else
      size=$(( 1024 + RANDOM % (15 * 1024) ))         # ~2400 small files, 1-16 KiB
    fi
    if ((i % 2 == 0)); then
      head -c "$size" /dev/urandom > "$dir/blob$i.bin"
    else
      { seq -f "{\"id\": %g, \"kind\": \"sprite\", \"atlas\": \"hero.png\", \"frames\": [1, 2, 3]}," \
          1 $((size / 40 + 1)) || true; } | head -c "$size" > "$dir/data$i.json"  # seq meets SIGPIPE
    fi
  done
  echo '{"deviceOrientation": "landscape"}' > "$src/game.config.json"
  (cd "$src" && zip -q -r -6 "$package" .)
  rm -rf "$src"
fi

many="$work/many.zip"
if [[ ! -f $many ]]; then
  echo "making $many ..."
  python3 - "$many" <<'PY'
import sys, zipfile
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_DEFLATED) as z:
    for i in range(70001):
        z.writestr(f"many/d{i % 700}/f{i}.json", '{"id": %d, "name": "item %d"}\n' % (i, i) * (1 + i % 8))
PY
fi

# run <name> <dest> <command...>: one timed extraction into a fresh <dest>; prints "seconds rss_kb".
run() {
  local name=$1 dest=$2
  shift 2
  rm -rf "$dest"
  mkdir -p "$dest"
  local start end
  start=$(date +%s%N)
  /usr/bin/time -f "%M" -o "$work/$name.rss" "$@" >/dev/null
  end=$(date +%s%N)
  echo "$(( (end - start) / 1000000 )) $(cat "$work/$name.rss")"
}

# bench <package>: every tool on one package, best of $rounds rounds, trees checked against unzip's.
bench() {
  local package=$1
  local files unpacked t m r tree tool
  files=$(unzip -Z1 "$package" | grep -vc '/$')
  unpacked=$(unzip -Zt "$package" | awk '{print $3}')
  echo "package: $package, $(du -m "$package" | cut -f1) MB, $files files, $((unpacked / 1000000)) MB unpacked"
  declare -A best rss
  for tool in unzip bsdtar merin install; do best[$tool]=999999999; done
  for ((r = 1; r <= rounds; r++)); do
    read -r t m < <(run unzip "$work/out-unzip" unzip -q "$package" -d "$work/out-unzip")
    ((t < best[unzip])) && best[unzip]=$t rss[unzip]=$m
    read -r t m < <(run bsdtar "$work/out-bsdtar" bsdtar -xf "$package" -C "$work/out-bsdtar")
    ((t < best[bsdtar])) && best[bsdtar]=$t rss[bsdtar]=$m
    read -r t m < <(run merin "$work/out-merin" "$driver" "$package" "$work/out-merin")
    ((t < best[merin])) && best[merin]=$t rss[merin]=$m
    # The install deletes its package, so it gets a copy; the root starts empty every round.
    rm -rf "$work/root"
    cp "$package" "$work/copy.zip"
    read -r t m < <(run install "$work/root" "$tavo" --root "$work/root" install \
      --app bench --version 1 --package "$work/copy.zip")
    ((t < best[install])) && best[install]=$t rss[install]=$m
    echo "round $r: unzip ${best[unzip]} ms, bsdtar ${best[bsdtar]} ms, merin ${best[merin]} ms," \
      "install ${best[install]} ms (best so far)"
  done

  for tree in "$work/out-merin" "$work/root/Caches/app/bench/1"; do
    if diff -r "$work/out-unzip" "$tree" >/dev/null; then
      echo "$tree is identical to unzip's tree"
    else
      echo "$tree DIFFERS from unzip's tree" >&2
      exit 1
    fi
  done

  printf '%-8s %10s %14s %12s\n' tool "best ms" "time / merin" "peak RSS KB"
  for tool in unzip bsdtar merin install; do
    printf '%-8s %10d %14s %12d\n' "$tool" "${best[$tool]}" \
      "$(awk -v a="${best[$tool]}" -v b="${best[merin]}" 'BEGIN { printf "%.2fx", a / b }')" \
      "${rss[$tool]}"
  done
  rm -rf "$work"/out-* "$work/root" "$work/copy.zip"
}

bench "$package"
bench "$many"
