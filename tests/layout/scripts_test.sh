#!/bin/sh
# usage: scripts_test.sh SCRIPTS_DIRECTORY
# Every script tells its usage when asked, from any directory, and refuses an option that it does not
# know before it does anything. Copies are run in a tree without sources, where nothing can be built.
set -eu

tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
mkdir -p "$tree/a tree/docs"
cp -R "$1" "$tree/a tree/scripts"
cd "$tree"
failures=0

fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

for script in "a tree"/scripts/*.sh; do
  name=$(basename "$script")
  status=0
  output=$("$script" --help 2>&1) || status=$?
  [ "$status" -eq 0 ] || fail "$name --help: exit status $status: $output"
  case "$output" in
    *"usage: scripts/$name"*) ;;
    *) fail "$name --help: no usage: $output" ;;
  esac
  case "$output" in
    *"set -"*) fail "$name --help shows its code: $output" ;;
  esac
  status=0
  output=$("$script" --nonsense 2>&1) || status=$?
  [ "$status" -eq 2 ] || fail "$name --nonsense: exit status $status, expected 2: $output"
  case "$output" in
    *nonsense*) ;;
    *) fail "$name --nonsense: not named: $output" ;;
  esac
done

# A file is named from where the caller is, and one that cannot be written is found before hours pass.
for name in bench bench_net; do
  status=0
  output=$("a tree/scripts/$name.sh" --output absent/page.md 2>&1) || status=$?
  [ "$status" -eq 2 ] || fail "$name --output absent/page.md: exit status $status, expected 2"
  case "$output" in
    *"$tree/absent/page.md cannot be written"*) ;;
    *) fail "$name --output absent/page.md: $output" ;;
  esac
done

[ "$failures" -eq 0 ] || exit 1
echo "every script keeps to it"
