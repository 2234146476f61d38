#!/bin/sh
# Builds the tree and runs its tests.
#
# usage: scripts/test.sh [--all | --preset NAME] [--fuzz SECONDS] [--help]
#
#   (nothing)      all tests under the preset dev
#   --all          then the core and the in-process transport under the address,
#                  undefined-behaviour and thread sanitizers as well (asan-core, tsan), and every
#                  fuzz target for a few seconds (scripts/fuzz.sh)
#   --preset NAME  that configure preset only; see CMakePresets.json
#   --fuzz SECONDS then every fuzz target for so long
#
# Installs missing Debian packages first (scripts/install_deps.sh). May be called from any directory.
# JOBS sets the number of compilers at a time (default: one per processor), TEST_JOBS that of tests
# (default: 2). ccache is used when it is there.
#
# Every test that leaves a shared-memory segment behind fails the run. Ends with the list of the tests
# that ran and one line "N passed, N failed"; exits with 0 only when nothing failed.
set -eu

cd -- "$(dirname -- "$0")/.."
presets=dev
fuzz=0
while [ $# -gt 0 ]; do
  case "$1" in
    --all)
      presets="dev asan-core tsan"
      fuzz=5
      ;;
    --preset)
      if [ $# -lt 2 ]; then
        echo "test.sh: --preset needs a name" >&2
        exit 2
      fi
      presets=$2
      shift
      ;;
    --fuzz)
      case "${2-}" in
        "" | *[!0-9]*)
          echo "test.sh: --fuzz needs a number of seconds" >&2
          exit 2
          ;;
      esac
      fuzz=$2
      shift
      ;;
    -h | --help)
      sed -n '2,18s/^# \{0,1\}//p' "scripts/test.sh"
      exit 0
      ;;
    *)
      echo "test.sh: unknown option \"$1\"; try --help" >&2
      exit 2
      ;;
  esac
  shift
done

jobs=${JOBS:-$(nproc)}
test_jobs=${TEST_JOBS:-2}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

passed=0
failed=0
: >"$work/ran"

note() {
  printf '\n== %s\n' "$*"
}

fail() {
  echo "FAILED: $*"
  failed=$((failed + 1))
}

# Identifiers of all segments, and the processes that made them.
segments() {
  ipcs -m -p | awk '$1 ~ /^[0-9]+$/ { print $1, $3 }' | sort
}

# New segments whose maker has ended: nobody will remove those any more.
left_behind() {
  segments | while read -r id maker; do
    if ! grep -q "^$id " "$work/segments" && [ ! -d "/proc/$maker" ]; then echo "$id"; fi
  done
}

check_segments() {
  # Somebody else's processes may be between making and removing; what stays, stays.
  tries=0
  while [ -n "$(left_behind)" ] && [ "$tries" -lt 10 ]; do
    tries=$((tries + 1))
    sleep 1
  done
  left=$(left_behind)
  [ -z "$left" ] || fail "shared-memory segments were left behind: $(echo "$left" | tr '\n' ' ')" \
    "(ipcs -m shows them, ipcrm -m ID removes them)"
}

check_writable() {
  if [ -e "build/$1" ] && [ ! -w "build/$1" ]; then
    echo "test.sh: build/$1 belongs to another user; remove it first: sudo rm -rf build/$1" >&2
    exit 1
  fi
}

build() {
  if command -v ccache >/dev/null; then
    # A fresh clone elsewhere finds what this tree has compiled.
    export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
    set -- "$1" -DCMAKE_CXX_COMPILER_LAUNCHER=ccache
  fi
  if ! cmake --preset "$@" >"$work/log" 2>&1; then
    cat "$work/log"
    return 1
  fi
  if ! cmake --build "build/$1" -j "$jobs" >"$work/log" 2>&1; then
    grep -v '^\[' "$work/log" | head -n 200
    return 1
  fi
}

run_tests() {
  status=0
  ctest --test-dir "build/$1" -j "$test_jobs" --output-on-failure --no-tests=error \
    >"$work/tests" 2>&1 || status=$?
  grep -vE '^ +Start +[0-9]+:' "$work/tests" | grep -vE ' +Passed +[0-9.]+ sec *$' || true
  # Lines such as "  3/120 Test  #7: Md5.PadsRight ......   Passed    0.02 sec".
  awk -v preset="$1" '
    /^ *[0-9]+\/[0-9]+ +Test +#[0-9]+:/ {
      result = / Passed +[0-9.]+ sec *$/ ? "passed" : "failed"
      sub(/^ *[0-9]+\/[0-9]+ +Test +#[0-9]+: */, "")
      print preset, result, $1
    }' "$work/tests" >"$work/now"
  cat "$work/now" >>"$work/ran"
  passed=$((passed + $(grep -c ' passed ' "$work/now" || true)))
  now_failed=$(grep -c ' failed ' "$work/now" || true)
  failed=$((failed + now_failed))
  if [ "$status" -ne 0 ] && [ "$now_failed" -eq 0 ]; then
    fail "ctest under the preset $1 (exit status $status)"
  fi
}

# One line per suite and preset: how many of its tests passed and failed.
list_tests() {
  sort "$work/ran" | awk '
    {
      suite = $3
      sub(/\..*/, "", suite)
      key = $1 " " suite
      if (!(key in total)) order[++count] = key
      total[key]++
      if ($2 == "failed") bad[key] = bad[key] " " $3
    }
    END {
      for (i = 1; i <= count; ++i) {
        split(order[i], part, " ")
        if (part[1] != preset) printf "%s:\n", preset = part[1]
        printf "  %-44s %4d%s\n", part[2], total[order[i]], \
               order[i] in bad ? "   FAILED:" bad[order[i]] : ""
      }
    }'
}

for preset in $presets; do check_writable "$preset"; done
scripts/install_deps.sh
segments >"$work/segments"

for preset in $presets; do
  note "building $preset"
  if build "$preset"; then
    note "testing $preset"
    run_tests "$preset"
  else
    fail "the build of the preset $preset"
  fi
done
if [ "$fuzz" -gt 0 ]; then
  note "fuzzing"
  scripts/fuzz.sh "$fuzz" || fail "fuzzing (scripts/fuzz.sh $fuzz)"
fi
check_segments

note "tests that ran"
list_tests
printf '\n%d passed, %d failed\n' "$passed" "$failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
