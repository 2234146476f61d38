#!/bin/sh
# From a fresh clone to answers: installs what is missing, builds the command-line tool, loads the
# country table of the Debian package tor-geoipdb and looks up a few well-known addresses.
#
# usage: scripts/quickstart.sh
set -eu

cd -- "$(dirname -- "$0")/.."
table=/usr/share/tor/geoip

scripts/install_deps.sh build service
if [ ! -r "$table" ]; then
  echo "quickstart: $table is missing; reinstall it: apt-get install --reinstall tor-geoipdb" >&2
  exit 1
fi
if [ -e build/quickstart ] && [ ! -w build/quickstart ]; then
  echo "quickstart: build/quickstart belongs to another user; remove it first:" \
    "sudo rm -rf build/quickstart" >&2
  exit 1
fi

log=$(mktemp)
trap 'rm -f "$log"' EXIT
echo "building (a minute or two the first time) ..."
if ! { cmake --preset quickstart && cmake --build build/quickstart --target tolvar; } \
  >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi

# Public name servers and the web sites of the five regional registries. The last address is private
# and shows what a miss looks like, for which the tool answers with status 1.
status=0
build/quickstart/tools/tolvar lookup --table "$table" --timing \
  8.8.8.8 1.1.1.1 193.0.6.139 202.12.27.33 200.160.2.3 196.216.2.6 10.0.0.1 || status=$?
[ "$status" -le 1 ] || exit "$status"
