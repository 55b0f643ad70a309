#!/usr/bin/env bash
# Whole conversions against the floor: for each generated 2.0 database, the time of
#   cp LOG <copy> && sync
# (the least any tool that rewrites the log durably must pay) and of j480_wal20_converter on a
# fresh copy of the same database, with wall time, MB/s of old log, the ratio to the floor and
# the peak resident memory of the converter.
#
# Usage: bash bench/convert_bench.sh [blocks] [tables]
#   blocks  blocks of the block-heavy log (default 10000000)
#   tables  tables of the catalog-heavy log (default 20000)
# Environment: BUILD (a Release build directory, default build/bench, built here when missing
# the two binaries), WORK (scratch directory, default a new one under ${TMPDIR:-/tmp}, removed
# at the end), REPEAT (runs of each, the best counts; default 3).
set -euo pipefail
cd "$(dirname "$0")/.."
blocks=${1:-10000000}
tables=${2:-20000}
build=${BUILD:-build/bench}
repeat=${REPEAT:-3}
gen="$build/src/tools/wal20_gen/j480_wal20_gen"
tool="$build/src/tools/wal_converter/j480_wal20_converter"
if [ ! -x "$gen" ] || [ ! -x "$tool" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DJ480_TESTS=OFF -DJ480_BENCH=OFF \
    >/dev/null
  cmake --build "$build" -j "$(nproc)" --target j480_wal20_gen j480_wal20_converter >/dev/null
fi
work=${WORK:-$(mktemp -d "${TMPDIR:-/tmp}/j480_convert_bench.XXXXXX")}
[ -n "${WORK:-}" ] || trap 'rm -rf "$work"' EXIT
mkdir -p "$work"

# seconds.fraction of a command's wall time; the command's output goes away.
wall() {
  local t0 t1
  t0=$(date +%s.%N)
  "$@" >/dev/null 2>&1
  t1=$(date +%s.%N)
  sub "$t1" "$t0"
}

sub() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.6f", a - b }'; }
less() { awk -v a="$1" -v b="$2" 'BEGIN { exit !(a < b) }'; }

bench_one() {  # bench_one <label> <generator args...>
  local label=$1
  shift
  local src="$work/$label.src"
  rm -rf "$src"
  mkdir -p "$src"
  "$gen" --out "$src/db" --seed 7 "$@" >/dev/null
  local log="$src/db/CBM/LOG"
  local bytes
  bytes=$(stat -c %s "$log")
  local best_floor="" best_tool="" rss=0
  for _ in $(seq "$repeat"); do
    sync
    local f
    f=$(wall sh -c "cp '$log' '$work/LOG.copy' && sync")
    rm -f "$work/LOG.copy"
    rm -rf "$work/$label.run"
    cp -r "$src" "$work/$label.run"
    sync
    local t0 t1 status
    t0=$(date +%s.%N)
    set +e
    /usr/bin/time -f "%M" -o "$work/time.out" "$tool" --dbfarm "$work/$label.run" --dbname db \
      >/dev/null 2>"$work/run.log"
    status=$?
    set -e
    t1=$(date +%s.%N)
    if [ $status -ne 0 ]; then
      echo "$label: the conversion failed (exit $status); its log: $work/run.log" >&2
      tail -n 5 "$work/run.log" >&2
      exit 1
    fi
    local t
    t=$(sub "$t1" "$t0")
    local kb
    kb=$(tail -n 1 "$work/time.out")
    [ "$kb" -gt "$rss" ] && rss=$kb
    if [ -z "$best_floor" ] || less "$f" "$best_floor"; then best_floor=$f; fi
    if [ -z "$best_tool" ] || less "$t" "$best_tool"; then best_tool=$t; fi
  done
  rm -rf "$work/$label.run" "$src"
  awk -v l="$label" -v b="$bytes" -v f="$best_floor" -v t="$best_tool" -v r="$rss" 'BEGIN {
    mb = b / 1e6
    printf "%-8s log %8.1f MB | cp+sync %7.3f s %8.1f MB/s | convert %7.3f s %8.1f MB/s | ratio %5.2f | peak RSS %7.1f MB\n",
      l, mb, f, mb / f, t, mb / t, t / f, r / 1024
  }'
}

echo "best of $repeat runs; scratch: $work"
# About 28 bytes of log a block (see bench/bc20_replay_bench.cc).
bench_one blocks --tables 8 --transactions 40 --blocks 4096 --target-size $((28 * blocks))
bench_one tables --tables "$tables" --transactions $((2 * tables)) --columns 4 --blocks 2
