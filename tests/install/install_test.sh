#!/bin/sh
# usage: install_test.sh CMAKE GENERATOR COMPILER BUILD_DIRECTORY PROGRAM TABLE
# Installs the tree below a prefix, builds a program against the package as a host's own project would,
# and has it ask an installed service.
set -eu

cmake=$1
generator=$2
compiler=$3
build=$4
program=$5
table=$6
work=$(mktemp -d)
prefix="$work/the prefix"
service=""
# As the program takes them: KEY, KEY + 1, KEY + 2.
key=$((0x51000000 + $$ * 4))

end() {
  if [ -n "$service" ]; then
    kill "$service" 2>/dev/null || true
    wait "$service" || true
  fi
  [ ! -x "$prefix/bin/tolvar" ] ||
    "$prefix/bin/tolvar" shm rm --force --keys "$key,$((key + 1)),$((key + 2))" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap end EXIT

fail() {
  echo "FAIL: $*"
  exit 1
}

"$cmake" --install "$build" --prefix "$prefix" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
"$cmake" -S "$(dirname -- "$0")/consumer" -B "$work/build" -G "$generator" \
  -DCMAKE_CXX_COMPILER="$compiler" -DPROGRAM="$program" -DCMAKE_PREFIX_PATH="$prefix" \
  >"$work/log" 2>&1 || fail "$(cat "$work/log")"
"$cmake" --build "$work/build" >"$work/log" 2>&1 || fail "$(cat "$work/log")"

cd "$work"
"$prefix/bin/tolvard" import "$table" >"$work/log"
"$prefix/bin/tolvard" serve --listen 127.0.0.1:0 >"$work/serve.log" &
service=$!
tries=0
until grep -q event=listening serve.log; do
  tries=$((tries + 1))
  [ "$tries" -lt 300 ] || fail "the service does not listen: $(cat serve.log)"
  sleep 0.1
done
address=$(sed -n 's/.*event=listening address=\([^ ]*\).*/\1/p' serve.log)
answer=$(build/consumer "$address" "$key" 8.8.8.8) || fail "the program ended with $?: $answer"
[ "$answer" = "8.8.8.8: United States" ] || fail "it answered: $answer"
