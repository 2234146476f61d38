#!/bin/sh
# From a fresh clone to answers over the network: installs what is missing, builds the service and the
# client's tool, imports the country table of the Debian package tor-geoipdb, serves it on the
# loopback, looks a few well-known addresses up from another process and lets a client follow an
# update. Stops everything it started; all files are below build/.
#
# usage: scripts/quickstart.sh [--help]
#
# Takes a few minutes the first time, seconds after that. Leaves the programs in build/quickstart/tools.
set -eu

cd -- "$(dirname -- "$0")/.."
case "${1-}" in
  "") ;;
  -h | --help)
    sed -n '2,9s/^# \{0,1\}//p' scripts/quickstart.sh
    exit 0
    ;;
  *)
    echo "quickstart.sh: unknown option \"$1\"; try --help" >&2
    exit 2
    ;;
esac
table=/usr/share/tor/geoip
build=build/quickstart
run=$build/run
tolvar=$build/tools/tolvar
tolvard=$build/tools/tolvard/tolvard

service=""
watcher=""
step=""

end() {
  trap '' INT TERM HUP
  for process in $step $watcher $service; do
    kill "$process" 2>/dev/null || continue
    wait "$process" || true
  done
}
trap end EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

fail() {
  echo "quickstart: $*" >&2
  exit 1
}

# in_step COMMAND...: a signal to the script ends the command at once as well.
in_step() {
  "$@" &
  step=$!
  status=0
  wait "$step" || status=$?
  step=""
  return "$status"
}

# await FILE TEXT PROCESS: waits until the process has written the text into the file.
await() {
  tries=0
  until grep -q -- "$2" "$1" 2>/dev/null; do
    if [ "$tries" -ge 300 ] || ! kill -0 "$3" 2>/dev/null; then
      fail "no $2 in $1:
$(cat "$1")"
    fi
    tries=$((tries + 1))
    sleep 0.1
  done
}

configure_and_build() {
  in_step cmake --preset quickstart && in_step ninja -C "$build" tolvar tolvard
}

scripts/install_deps.sh build service grpc
[ -r "$table" ] ||
  fail "$table is missing; reinstall it: apt-get install --reinstall tor-geoipdb"
if [ -e "$build" ] && [ ! -w "$build" ]; then
  fail "$build belongs to another user; remove it first: sudo rm -rf $build"
fi
rm -rf "$run"
mkdir -p "$run"

echo "building (a few minutes the first time) ..."
configure_and_build >"$run/build.log" 2>&1 || fail "the build failed:
$(cat "$run/build.log")"

in_step "$tolvard" import "$table" --db "$run/tolvar.db" >"$run/import.log"
tail -n 1 "$run/import.log"
"$tolvard" serve --db "$run/tolvar.db" --listen 127.0.0.1:0 >"$run/serve.log" 2>&1 &
service=$!
await "$run/serve.log" event=listening "$service"
address=$(sed -n 's/.*event=listening address=\([^ ]*\).*/\1/p' "$run/serve.log")
echo "serving on $address"
echo

# Public name servers and the web sites of the five regional registries. The last address is private
# and shows what a miss looks like, for which the tool answers with status 1.
status=0
in_step "$tolvar" lookup --service "$address" --timing \
  8.8.8.8 1.1.1.1 193.0.6.139 202.12.27.33 200.160.2.3 196.216.2.6 10.0.0.1 || status=$?
[ "$status" -le 1 ] || exit "$status"

# A client asks for changes every ten minutes; this one does so every second.
echo
echo "an update, 10.0.0.0/16 added, and a client that follows it:"
"$tolvar" watch --service "$address" --time-scale 600 >"$run/watch.log" 2>&1 &
watcher=$!
await "$run/watch.log" ready=yes "$watcher"
{ cat "$table" && echo 167772160,167837695,DE; } >"$run/update.csv"
in_step "$tolvard" import "$run/update.csv" --db "$run/tolvar.db" >"$run/import.log"
await "$run/watch.log" "digest=$(sed -n 's/.*digest //p' "$run/import.log")" "$watcher"
grep ready=yes "$run/watch.log" | sed 's/ age=.*//' | awk '!seen[$3]++'
in_step "$tolvar" lookup --service "$address" 10.0.0.1
