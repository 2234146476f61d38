#!/bin/sh
# Measures the service and its clients over loopback and writes docs/performance-network.md: a whole
# download beside bare gRPC calls, many hosts at once, and change checks beside downloads, with the
# goals they meet. Best on a machine that does nothing else; takes about a minute.
#
# usage: scripts/bench_net.sh [--ranges N] [--hosts N] [--pages N] [--output FILE] [--help]
#
#   --ranges N     size of the table (default: 524288)
#   --hosts N      hosts at once (default: 1000)
#   --pages N      pages that each of them fetches (default: 3)
#   --output FILE  write there instead; - is standard output
#
# Installs missing Debian packages first (scripts/install_deps.sh) and builds in build/bench-net.
# JOBS sets the number of compilers at a time (default: one per processor).
set -eu

from=$(pwd)
cd -- "$(dirname -- "$0")/.."
output=docs/performance-network.md
flags=""
while [ $# -gt 0 ]; do
  case "$1" in
    --ranges | --hosts | --pages | --output)
      if [ $# -lt 2 ]; then
        echo "bench_net.sh: $1 needs a value" >&2
        exit 2
      fi
      # A file is meant from the caller's directory.
      case "$1 $2" in
        "--output -" | "--output /"*) output=$2 ;;
        "--output "*) output=$from/$2 ;;
        *) flags="$flags $1=$2" ;;
      esac
      shift
      ;;
    -h | --help)
      sed -n '2,14s/^# \{0,1\}//p' "scripts/bench_net.sh"
      exit 0
      ;;
    *)
      echo "bench_net.sh: unknown option \"$1\"; try --help" >&2
      exit 2
      ;;
  esac
  shift
done

jobs=${JOBS:-$(nproc)}
# Measuring takes long, so what cannot be written is said before.
if [ "$output" != - ] && [ ! -w "$output" ] &&
  { [ -e "$output" ] || [ ! -w "$(dirname -- "$output")" ]; }; then
  echo "bench_net.sh: $output cannot be written; name another file with --output" >&2
  exit 2
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

scripts/install_deps.sh build test service grpc bench
echo "building ..." >&2
if ! { cmake --preset release -B build/bench-net -DTOLVAR_TESTS=OFF &&
  cmake --build build/bench-net -j "$jobs" --target net_bench; } >"$work/log" 2>&1; then
  cat "$work/log" >&2
  exit 1
fi

# A connection is a file.
# shellcheck disable=SC3045 # dash and bash have it
ulimit -n "$(ulimit -H -n)"
echo "measuring ..." >&2
# shellcheck disable=SC2086 # the flags are words
build/bench-net/bench/net_bench $flags >"$work/page"
if [ "$output" = - ]; then
  cat "$work/page"
else
  cp "$work/page" "$output"
  echo "wrote $output" >&2
fi
