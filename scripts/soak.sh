#!/bin/sh
# Runs processes on one image in shared memory and kills them at random times: publishers that follow
# a service whose tables change all the time, readers that look up without pause, starters that come
# and go. After every kill the image must be whole; at the end there must be no wrong answer, and
# memory, descriptors and segments must have stayed flat.
#
# usage: scripts/soak.sh MINUTES [options]
#        scripts/soak.sh --kills N [options]
#
#   --kills N          end after as many kills instead
#   --processes N      (default 16)
#   --publish-every N  milliseconds between two versions of the service (default 1000)
#   --kill-every N     milliseconds between two kills, on average (default 5000)
#   --small            begin with segments of a few megabytes, so that more happens in the same time
#   --seed N           of the random times; the one in use is printed
#
# Installs missing Debian packages first (scripts/install_deps.sh) and builds in build/soak. Prints
# what was done and exits with 0 only when nothing was wrong.
# 2,000 kills in ten minutes or less:
#   scripts/soak.sh --kills 2000 --publish-every 200 --kill-every 40 --small
set -eu

cd -- "$(dirname -- "$0")/.."
case "${1-}" in
  "" | -h | --help)
    sed -n '2,22s/^# \{0,1\}//p' "scripts/soak.sh"
    if [ $# -gt 0 ]; then exit 0; else exit 2; fi
    ;;
  --kills | --minutes | --processes | --publish-every | --kill-every | --seed | --small | --verbose) ;;
  --*=*) ;;
  -*)
    echo "soak.sh: unknown option \"$1\"; try --help" >&2
    exit 2
    ;;
  *[!0-9.]*)
    echo "soak.sh: \"$1\" is not a number of minutes; try --help" >&2
    exit 2
    ;;
  *)
    minutes=$1
    shift
    set -- --minutes "$minutes" "$@"
    ;;
esac

scripts/install_deps.sh build test >&2
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake -S . -B build/soak -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOLVAR_SERVICE=OFF &&
  cmake --build build/soak -j "${JOBS:-$(nproc)}" --target soak; } >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi
build/soak/tests/crash/soak "$@"
