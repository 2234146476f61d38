#!/bin/sh
# Holds the symbols that the object files of the lookup path call against the list of those that
# neither lock, nor allocate, nor call the operating system.
#
# usage: check_lookup_symbols.sh NM OBJECT...
set -eu

nm=$1
shift
if [ $# -lt 3 ]; then
  echo "check_lookup_symbols: $# object files instead of 3" >&2
  exit 2
fi
status=0
for object in "$@"; do
  symbols=$("$nm" -C "$object")
  if ! echo "$symbols" | grep -qE 'getIPInfo|RangeLookup::findBatch|Toolkit::parseIPv4'; then
    echo "check_lookup_symbols: $object is not an object file of the lookup path" >&2
    exit 2
  fi
  # beginOtherwise and endOtherwise are for a thread's first section and its nested ones.
  foreign=$(echo "$symbols" | sed -n 's/^ *U //p' | grep -vxE \
    -e '_GLOBAL_OFFSET_TABLE_|__tls_get_addr|__gxx_personality_v0|(memcpy|memset|memmove)(@.*)?' \
    -e 'tolvar::epochs::(threadSlot|processEpoch)' \
    -e 'tolvar::epochs::(beginOtherwise|endOtherwise)\(tolvar::ReaderSlot\*\)' \
    -e 'tolvar::RangeLookup::find(Batch|Tuples)\(.*\) const' || true)
  if [ -n "$foreign" ]; then
    printf '%s calls what a lookup may not call:\n%s\n' "$object" "$foreign"
    status=1
  fi
done
exit $status
