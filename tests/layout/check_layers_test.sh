#!/bin/sh
# usage: check_layers_test.sh CHECK_LAYERS_SCRIPT
# Plants faults into a small tree and expects each to be found where it is.
set -eu

check=$1
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
failures=0

fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# put FILE LINE...: writes a source file of the tree.
put() {
  file=$tree/$1
  shift
  mkdir -p "$(dirname "$file")"
  printf '%s\n' "$@" >"$file"
}

clean_tree() {
  rm -rf "${tree:?}"/*
  put platform/clock.h '#pragma once' '#include <ctime>'
  put platform/clock.cpp '#include "platform/clock.h"' '#include <sys/time.h>'
  put records/records.h '#include <string>'
  put remote/proxies.h '#include "records/records.h"' '#include "platform/clock.h"'
  put include/TolvarAPI.h '#include "remote/proxies.h"'
  put include/lookup_types.h '#include "records/records.h"'
  put src/client.cpp '#include "include/TolvarAPI.h"' '#include "platform/clock.h"'
  put service/store.h '#include "include/lookup_types.h"'
  put transport/in_process_communicator.h '#include "service/store.h"'
  put transport/grpc/server.cpp '#include "tolvar.pb.h"' '#include "remote/proxies.h"'
  put tools/main.cpp '#include "transport/in_process_communicator.h"' '#include "src/x.h"'
}

expect_clean() {
  if output=$("$check" "$tree" 2>&1); then :; else fail "$1: refused a clean tree: $output"; fi
}

# expect_fault TEXT FILE LINE...: the tree with this file must be refused with a line that has TEXT.
expect_fault() {
  text=$1
  shift
  clean_tree
  put "$@"
  status=0
  output=$("$check" "$tree" 2>&1) || status=$?
  [ "$status" -eq 1 ] || fail "$1: exit status $status, expected 1"
  case "$output" in
    *"$text"*) ;;
    *) fail "$1: expected '$text', got: $output" ;;
  esac
}

clean_tree
expect_clean "as it should be"

expect_fault 'platform/bad.cpp:2: platform/ may not include "records/records.h"' \
  platform/bad.cpp '#include <string>' '#include "records/records.h"'
expect_fault 'records/bad.h:1: records/ may not include "platform/clock.h"' \
  records/bad.h '#include "platform/clock.h"'
expect_fault 'log/bad.h:1: log/ may not include "records/records.h"' \
  log/bad.h '#include "records/records.h"'
expect_fault 'remote/bad.h:1: remote/ may not include "include/TolvarAPI.h"' \
  remote/bad.h '#include "include/TolvarAPI.h"'
expect_fault 'report/bad.h:1: report/ may not include "log/logger.h"' \
  report/bad.h '#include "log/logger.h"'
expect_fault 'include/bad.h:1: include/ may not include "src/client.h"' \
  include/bad.h '#include "src/client.h"'
expect_fault 'src/index/bad.cpp:3: src/ may not include "transport/grpc/server.h"' \
  src/index/bad.cpp '' '' '  #  include  "transport/grpc/server.h"  // why'
expect_fault 'src/bad.cpp:1: src/ may not include "service/store.h"' \
  src/bad.cpp '#include "service/store.h"'
expect_fault 'transport/grpc/bad.cpp:1: transport/ may not include "service/store.h"' \
  transport/grpc/bad.cpp '#include "service/store.h"'
expect_fault 'service/bad.cpp:1: service/ may not include the client' \
  service/bad.cpp '#include "include/TolvarAPI.h"'
expect_fault 'service/bad.cpp:1: service/ may not include "src/client.h"' \
  service/bad.cpp '#include "src/client.h"'
expect_fault 'src/bad.cpp:1: "client.h" is not written from the root' \
  src/bad.cpp '#include "client.h"'
expect_fault 'records/bad.h:1: "../platform/clock.h" is not written from the root' \
  records/bad.h '#include "../platform/clock.h"'
expect_fault 'platform/bad.h:1: <platform/clock.h> is ours' \
  platform/bad.h '#include <platform/clock.h>'

rm -rf "${tree:?}"/*
status=0
"$check" "$tree" >/dev/null 2>&1 || status=$?
[ "$status" -eq 2 ] || fail "an empty tree: exit status $status, expected 2"

[ "$failures" -eq 0 ] || exit 1
echo "every planted fault was found"
