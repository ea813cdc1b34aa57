#!/usr/bin/env bash
# Times the package-cache sweep (tavo_sweep_driver: checkFileAvailability for "zgp" entries at
# least 60 minutes old) against `find DIR -maxdepth 1 -name '*.zgp' -mmin +60 -delete` on the
# same directory of COUNT entries (default 100000): half old "*.zgp" (modified 2 hours ago), a
# quarter fresh "*.zgp", a quarter old "*.tmp". Every run gets a freshly made directory under
# /dev/shm (else $TMPDIR); the best of RUNS (default 3) wall-clock times of each is printed with
# the ratio ours / find, after checking that both leave the same names behind. Peak RSS comes
# from /usr/bin/time -v when present, else from the driver's own VmHWM line.
#
#   bench/game/sweep_vs_find.sh [BUILD_DIR]      (COUNT=100000 RUNS=3)
set -euo pipefail
cd "$(dirname "$0")/../.."

build=${1:-build}
count=${COUNT:-100000}
runs=${RUNS:-3}
driver="$build/bench/game/tavo_sweep_driver"
[[ -x $driver ]] || { echo "build $driver first (target tavo_sweep_driver)" >&2; exit 1; }

base=/dev/shm
[[ -d $base && -w $base ]] || base=${TMPDIR:-/tmp}
work=$(mktemp -d "$base/tavo-sweep-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT

old=$((count / 2))
fresh=$((count / 4))
tmp=$((count - old - fresh))

# Fills a new directory $1 with the mix of entries.
populate() {
  mkdir "$1"
  (
    cd "$1"
    seq -f 'old%06g.zgp' "$old" | xargs touch -d '2 hours ago'
    seq -f 'fresh%06g.zgp' "$fresh" | xargs touch
    seq -f 'old%06g.tmp' "$tmp" | xargs touch -d '2 hours ago'
  )
}

names() { ls -f "$1" | grep -v '^\.\.\?$' | sort; }

now_ns() { date +%s%N; }
best_find=""
best_tavo=""
best_sweep=""
for ((i = 1; i <= runs; i++)); do
  populate "$work/find$i"
  populate "$work/tavo$i"

  t0=$(now_ns)
  find "$work/find$i" -maxdepth 1 -name '*.zgp' -mmin +60 -delete
  t1=$(now_ns)
  out=$("$driver" "$work/tavo$i" 60)
  t2=$(now_ns)

  deleted=$(sed -n 's/^deleted //p' <<< "$out")
  sweep=$(sed -n 's/^sweep \([0-9.]*\) s$/\1/p' <<< "$out")
  if [[ $deleted != "$old" ]]; then
    echo "run $i: the driver reported $deleted deletions, expected $old" >&2
    exit 1
  fi
  if ! cmp -s <(names "$work/find$i") <(names "$work/tavo$i"); then
    echo "run $i: find and the sweep left different entries" >&2
    diff <(names "$work/find$i") <(names "$work/tavo$i") | head >&2
    exit 1
  fi
  left=$(names "$work/tavo$i" | wc -l)
  [[ $left == $((fresh + tmp)) ]] || { echo "run $i: $left entries left" >&2; exit 1; }

  f=$((t1 - t0))
  t=$((t2 - t1))
  awk -v i="$i" -v f="$f" -v t="$t" -v s="$sweep" \
    'BEGIN { printf "run %d: find %.3f s, tavo %.3f s (sweep alone %.3f s)\n", i, f / 1e9, t / 1e9, s }'
  [[ -z $best_find || $f -lt $best_find ]] && best_find=$f
  if [[ -z $best_tavo || $t -lt $best_tavo ]]; then
    best_tavo=$t
    best_sweep=$sweep
  fi
  rm -rf "$work/find$i" "$work/tavo$i"
done

# Peak RSS, on one more fresh directory each.
populate "$work/rss-tavo"
populate "$work/rss-find"
if [[ -x /usr/bin/time ]]; then
  rss_tavo=$( { /usr/bin/time -v "$driver" "$work/rss-tavo" 60 > /dev/null; } 2>&1 |
    sed -n 's/^[[:space:]]*Maximum resident set size (kbytes): //p')
  rss_find=$( { /usr/bin/time -v find "$work/rss-find" -maxdepth 1 -name '*.zgp' -mmin +60 \
    -delete; } 2>&1 | sed -n 's/^[[:space:]]*Maximum resident set size (kbytes): //p')
  rss_from="/usr/bin/time -v"
else
  rss_tavo=$("$driver" "$work/rss-tavo" 60 | sed -n 's/^peak RSS \([0-9]*\) KiB$/\1/p')
  rss_find="?"
  rss_from="the driver's VmHWM"
fi

awk -v n="$count" -v o="$old" -v runs="$runs" -v dir="$base" -v f="$best_find" -v t="$best_tavo" \
    -v s="$best_sweep" -v rt="$rss_tavo" -v rf="$rss_find" -v from="$rss_from" 'BEGIN {
  printf "%d entries in %s (%d old *.zgp deleted), fresh directory per run, best of %d\n", n, dir, o, runs
  printf "find -maxdepth 1 -name *.zgp -mmin +60 -delete  %.3f s\n", f / 1e9
  printf "tavo_sweep_driver DIR 60                        %.3f s  (sweep alone %.3f s)\n", t / 1e9, s
  printf "ratio tavo/find                                 %.2f\n", t / f
  printf "peak RSS (%s): tavo_sweep_driver %s KiB, find %s KiB\n", from, rt, rf
}'
