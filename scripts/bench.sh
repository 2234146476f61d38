#!/bin/sh
# Measures the library beside its alternatives and writes docs/performance.md: times, ratios, and
# which goals they meet. Best on a machine that does nothing else.
#
# usage: scripts/bench.sh [--large] [--output FILE] [--help]
#
#   --large        tables of 3 and 10 million ranges too; takes far longer, and more than 10 GB of memory
#   --output FILE  write there instead; - is standard output
#
# Installs missing Debian packages first (scripts/install_deps.sh) and builds in build/bench.
# JOBS sets the number of compilers at a time (default: one per processor). REPETITIONS sets how often
# each lookup case is measured (default: 15); the smallest time counts.
set -eu

cd -- "$(dirname -- "$0")/.."
tables="geoip 524288"
output=docs/performance.md
while [ $# -gt 0 ]; do
  case "$1" in
    --large) tables="$tables 3000000 10000000" ;;
    --output)
      if [ $# -lt 2 ]; then
        echo "bench.sh: --output needs a file" >&2
        exit 2
      fi
      output=$2
      shift
      ;;
    -h | --help)
      sed -n '2,13s/^# \{0,1\}//p' "scripts/bench.sh"
      exit 0
      ;;
    *)
      echo "bench.sh: unknown option \"$1\"; try --help" >&2
      exit 2
      ;;
  esac
  shift
done

jobs=${JOBS:-$(nproc)}
repetitions=${REPETITIONS:-15}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

scripts/install_deps.sh build test service bench
echo "building ..." >&2
if ! { cmake --preset release -B build/bench -DTOLVAR_GRPC=OFF -DTOLVAR_TESTS=OFF &&
  cmake --build build/bench -j "$jobs" --target client_bench performance_table; } \
  >"$work/log" 2>&1; then
  cat "$work/log" >&2
  exit 1
fi

# measure TABLE GROUP [FLAG...]
measure() {
  echo "measuring $1, $2 ..." >&2
  table=$1
  group=$2
  shift 2
  build/bench/bench/client_bench "--table=$table" "--group=$group" --benchmark_format=console \
    --benchmark_out_format=json "--benchmark_out=$work/$table-$group.json" "$@" >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    exit 1
  }
  set -- "$work/$table-$group.json"
  files="${files-} $1"
}

for table in $tables; do
  # The repetitions of all cases take turns, so that a disturbance does not hit one contestant alone.
  measure "$table" lookups --benchmark_min_time=0.05 "--benchmark_repetitions=$repetitions" \
    --benchmark_enable_random_interleaving=true
  measure "$table" replacement --benchmark_filter=-guard --benchmark_repetitions=3
  measure "$table" tables --benchmark_filter=-guard --benchmark_repetitions=5 \
    --benchmark_enable_random_interleaving=true
  measure "$table" memory --benchmark_filter=-guard
done

# shellcheck disable=SC2086 # the file names are words
build/bench/bench/performance_table $files >"$work/page"
if [ "$output" = - ]; then
  cat "$work/page"
else
  cp "$work/page" "$output"
  echo "wrote $output" >&2
fi
