#!/bin/sh
# Installs the Debian packages that this tree is built, tested and run with. Does nothing, and asks
# for no rights, when all of them are there.
#
# usage: scripts/install_deps.sh [GROUP...]
#
#   build    compiler, CMake, Ninja                        (every build)
#   test     GoogleTest, Google Benchmark                  (tests and benchmarks)
#   service  JSON, command line, SQLite, country data      (the service and the tools)
#   grpc     gRPC, protocol buffers, OpenSSL; Python       (the network transport and its tests)
#   bench    libmaxminddb, liburcu                         (comparisons in the benchmarks)
#   fuzz     clang 16 with its fuzzer                      (only when asked for)
#
# Without a group: all but fuzz.
set -eu

packages_of() {
  case "$1" in
    build) echo g++ cmake ninja-build pkg-config git ca-certificates ;;
    test) echo libgtest-dev libgmock-dev libbenchmark-dev ;;
    service) echo nlohmann-json3-dev libcli11-dev libsqlite3-dev tor-geoipdb iso-codes ;;
    grpc) echo libgrpc++-dev libprotobuf-dev protobuf-compiler protobuf-compiler-grpc libssl-dev openssl \
      python3 python3-grpcio python3-protobuf ;;
    bench) echo libmaxminddb-dev liburcu-dev ;;
    fuzz) echo clang-16 libclang-rt-16-dev ;;
    *) return 1 ;;
  esac
}

installed() {
  [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# run_as_root COMMAND...: quiet; what it printed is shown when it fails.
run_as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    set -- env DEBIAN_FRONTEND=noninteractive "$@"
  else
    set -- sudo env DEBIAN_FRONTEND=noninteractive "$@"
  fi
  if ! "$@" >"$log" 2>&1; then
    cat "$log" >&2
    echo "install_deps: failed: $*" >&2
    exit 1
  fi
}

case "${1-}" in
  -h | --help)
    sed -n '2,14s/^# \{0,1\}//p' "$0"
    exit 0
    ;;
esac
[ $# -gt 0 ] || set -- build test service grpc bench

wanted=""
for group in "$@"; do
  if ! names=$(packages_of "$group"); then
    echo "install_deps: no group \"$group\"; there are build, test, service, grpc, bench, fuzz" >&2
    exit 2
  fi
  wanted="$wanted $names"
done

if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
  echo "install_deps: this needs a Debian system (apt-get was not found)." >&2
  echo "Install what corresponds to these Debian 12 packages by hand:$wanted" >&2
  exit 1
fi

missing=""
for package in $wanted; do
  installed "$package" || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
  echo "install_deps: these packages are missing, and neither root nor sudo is at hand:" >&2
  echo " $missing" >&2
  echo "Run as root: apt-get install --no-install-recommends$missing" >&2
  exit 1
fi

log=$(mktemp)
trap 'rm -f "$log"' EXIT
echo "installing:$missing"
run_as_root apt-get -q -o DPkg::Lock::Timeout=300 update
# shellcheck disable=SC2086 # the package names are words
run_as_root apt-get -q -y -o DPkg::Lock::Timeout=300 install --no-install-recommends $missing
