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
# JOBS sets the number of compilers at a time (default: one per processor). ROUNDS sets in how many
# processes, one after the other, lookups are measured (default: 4); the smallest time counts.
set -eu

from=$(pwd)
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
      # The caller's directory is meant.
      case "$2" in
        - | /*) output=$2 ;;
        *) output=$from/$2 ;;
      esac
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
rounds=${ROUNDS:-4}
# Measuring takes long, so what cannot be written is said before.
if [ "$output" != - ] && [ ! -w "$output" ] &&
  { [ -e "$output" ] || [ ! -w "$(dirname -- "$output")" ]; }; then
  echo "bench.sh: $output cannot be written; name another file with --output" >&2
  exit 2
fi
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

# measure TABLE GROUP ROUND [FLAG...]
measure() {
  echo "measuring $1, $2, round $3 ..." >&2
  table=$1
  group=$2
  file=$work/$1-$2-$3.json
  shift 3
  build/bench/bench/client_bench "--table=$table" "--group=$group" --benchmark_format=console \
    --benchmark_out_format=json "--benchmark_out=$file" "$@" >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    exit 1
  }
  files="${files-} $file"
}

# The repetitions of all cases take turns, so that a disturbance does not hit one contestant alone.
turns=--benchmark_enable_random_interleaving=true

# Lookups depend on how much of the last-level cache the neighbours leave, which changes by the
# minute, and on where a process's memory happens to lie: several processes, far apart in time.
round=1
while [ "$round" -le "$rounds" ]; do
  for table in $tables; do
    # Short and many, so that each case meets a quiet moment where there is one.
    measure "$table" lookups "$round" --benchmark_min_time=0.02 --benchmark_repetitions=12 "$turns"
  done
  round=$((round + 1))
done
for table in $tables; do
  measure "$table" replacement 1 --benchmark_filter=-guard --benchmark_repetitions=3
  measure "$table" tables 1 --benchmark_filter=-guard --benchmark_repetitions=5 "$turns"
  measure "$table" memory 1 --benchmark_filter=-guard
done

# shellcheck disable=SC2086 # the file names are words
build/bench/bench/performance_table $files >"$work/page"
if [ "$output" = - ]; then
  cat "$work/page"
else
  cp "$work/page" "$output"
  echo "wrote $output" >&2
fi
