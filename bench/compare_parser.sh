#!/bin/sh
# Runs bench_parser of an earlier revision and of the working tree side by side, in one
# run on the same machine: the earlier revision is exported and built in a scratch
# directory (Release, -O2, like the working tree's build below), then both programs run
# in turn, three rounds each.
#
#   bench/compare_parser.sh [revision] [scratch directory]
#
# Default revision: HEAD~1 of the branch; default scratch directory: /tmp/kiv-bench-old.
set -eu
rev=${1:-HEAD~1}
scratch=${2:-/tmp/kiv-bench-old}
top=$(git rev-parse --show-toplevel)
flags="-DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE=-O2"

rm -rf "$scratch/src"
mkdir -p "$scratch/src"
git -C "$top" archive "$rev" | tar -x -C "$scratch/src"
cmake -S "$scratch/src" -B "$scratch/build" $flags >/dev/null
cmake --build "$scratch/build" -j2 --target bench_parser >/dev/null
cmake -S "$top" -B "$top/build-bench" $flags >/dev/null
cmake --build "$top/build-bench" -j2 --target bench_parser >/dev/null

run() {
  "$1" --benchmark_min_time=0.3 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
    --benchmark_filter="$2" 2>/dev/null | grep -E '_median|Load Average'
}
for round in 1 2 3; do
  echo "== round $round: $rev"
  run "$scratch/build/bench_parser" '/0$'
  echo "== round $round: working tree"
  run "$top/build-bench/bench_parser" '.'
done
