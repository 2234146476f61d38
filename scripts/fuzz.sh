#!/bin/sh
# Builds the fuzz targets and runs them, each for a number of seconds.
#
# usage: scripts/fuzz.sh [SECONDS] [TARGET...]
#
#   SECONDS   how long each target runs (default: 60)
#   TARGET    some of the targets (default: all of them; the folders of fuzz/corpus are named so)
#
# Installs clang 16 and the other Debian packages first (scripts/install_deps.sh). May be called from
# any directory. JOBS sets the number of compilers at a time (default: one per processor). ccache is
# used when it is there.
#
# Prints a line per target: executions, inputs that reached something new, result. Such inputs are
# kept in build/fuzz/found and serve the next run. A finding is shown with the path of its input; the
# exit status is then 1, and 2 when nothing could be run.
set -eu

cd -- "$(dirname -- "$0")/.."
case "${1-}" in
  -h | --help)
    sed -n '2,16s/^# \{0,1\}//p' scripts/fuzz.sh
    exit 0
    ;;
esac
seconds=${1:-60}
[ $# -eq 0 ] || shift
case "$seconds" in
  '' | *[!0-9]* | 0)
    echo "fuzz.sh: \"$seconds\" is not a number of seconds; try --help" >&2
    exit 2
    ;;
esac

root=build/fuzz
all=""
for folder in fuzz/corpus/*/; do all="$all $(basename "$folder")"; done
# shellcheck disable=SC2086 # the target names are words
[ $# -gt 0 ] || set -- $all
for target in "$@"; do
  case " $all " in
    *" $target "*) ;;
    *)
      echo "fuzz.sh: no target \"$target\"; there are:$all" >&2
      exit 2
      ;;
  esac
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# quietly COMMAND...: shows what it printed only when it fails.
quietly() {
  if ! "$@" >"$work/log" 2>&1; then
    grep -v '^\[' "$work/log" | head -n 200 >&2
    echo "fuzz.sh: failed: $*" >&2
    exit 2
  fi
}

dictionary_of() {
  case "$1" in
    tagged_decoder | skip_field) echo tagged ;;
    node | segment_image) echo image ;;
    grpc_page) echo page ;;
    *) echo table ;;
  esac
}

# The last number behind a name in the statistics that the fuzzer ends with.
statistic() {
  sed -n "s/^stat::$1: *//p" "$work/$2" | tail -n 1
}

if [ -e "$root" ] && [ ! -w "$root" ]; then
  echo "fuzz.sh: $root belongs to another user; remove it first: sudo rm -rf $root" >&2
  exit 2
fi
scripts/install_deps.sh build service grpc fuzz
launcher=""
if command -v ccache >/dev/null; then launcher=-DCMAKE_CXX_COMPILER_LAUNCHER=ccache; fi
# shellcheck disable=SC2086 # nothing, or one word
quietly cmake --preset fuzz $launcher
quietly cmake --build "$root" --target fuzzers -j "${JOBS:-$(nproc)}"

failed=0
printf '%-18s %12s %10s  %s\n' target executions "new inputs" result
for target in "$@"; do
  found=$root/found/$target
  findings=$root/findings/$target
  mkdir -p "$found" "$findings"
  status=0
  # The fuzzer stops by itself; one that does not is a finding as well.
  timeout -k 10 "$((seconds + 120))" "$root/fuzz/fuzz_$target" -max_total_time="$seconds" \
    -timeout=20 -rss_limit_mb=3000 -max_len=8192 -print_final_stats=1 \
    -dict="fuzz/dictionaries/$(dictionary_of "$target").dict" -artifact_prefix="$findings/" \
    "$found" "fuzz/corpus/$target" >"$work/$target" 2>&1 || status=$?
  result=ok
  if [ "$status" -ne 0 ]; then
    result="FAILED (exit status $status)"
    failed=$((failed + 1))
  fi
  printf '%-18s %12s %10s  %s\n' "$target" "$(statistic number_of_executed_units "$target")" \
    "$(statistic new_units_added "$target")" "$result"
  if [ "$status" -ne 0 ]; then
    grep -E 'ERROR|SUMMARY|does not hold|runtime error|what\(\)' "$work/$target" | head -n 5 || true
    input=$(sed -n 's/.*Test unit written to //p' "$work/$target" | tail -n 1)
    if [ -n "$input" ]; then
      echo "  the input: $input"
      echo "  once more: $root/fuzz/fuzz_$target $input"
    else
      tail -n 20 "$work/$target"
    fi
  fi
done
[ "$failed" -eq 0 ]
