#!/bin/sh
# Runs libFuzzer targets built by `make fuzz`, one after another, on one core.
#
#   fuzz/run.sh [-n runs] [-t seconds] [target...]     (default: every target, 10000000 runs)
#
# Each target works on its corpus fuzz/corpus-<target>/ (started from fuzz/seeds/<target>/,
# not committed); findings land in build-fuzz/artifacts/, logs in build-fuzz/logs/. The
# last lines of each log carry the final statistics (executions, time, exec/s).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
build=${FUZZ_BUILD:-$root/build-fuzz}
runs=10000000
secs=0
while getopts n:t: opt; do
  case $opt in
    n) runs=$OPTARG ;;
    t) secs=$OPTARG ;;
    *) echo "usage: $0 [-n runs] [-t seconds] [target...]" >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
targets=${*:-"checkers config grammar engine adapter editor"}

mkdir -p "$build/artifacts" "$build/logs"
status=0
for t in $targets; do
  bin=$build/fuzz_$t
  [ -x "$bin" ] || { echo "$bin missing: run make fuzz first" >&2; exit 2; }
  corpus=$here/corpus-$t
  mkdir -p "$corpus"
  dict=""
  [ -f "$here/dict/$t.dict" ] && dict="-dict=$here/dict/$t.dict"
  # Key streams need little more than one full line (1022 characters) to reach every case.
  maxlen=4096
  [ "$t" = editor ] && maxlen=1200
  log=$build/logs/$t.log
  echo "== $t: $runs runs, log $log"
  # -timeout: one input may take at most this long (the engine target drives the simulated
  # board); -rss_limit_mb guards against runaway allocations.
  if "$bin" -runs="$runs" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 -max_len="$maxlen" \
      -print_final_stats=1 -artifact_prefix="$build/artifacts/$t-" $dict \
      "$corpus" "$here/seeds/$t" >"$log" 2>&1; then
    grep -E '^(Done|stat::number_of_executed_units|stat::average_exec_per_sec|stat::peak_rss_mb)' "$log" || true
  else
    echo "   $t FAILED, see $log" >&2
    status=1
  fi
done
exit $status
