#!/bin/sh
# Holds the layer table (CONTRIBUTING.md) against the #include lines of the source tree.
#
# usage: scripts/check_layers.sh [ROOT]
#
# ROOT is the tree to check, by default the one that holds this script. Prints one line per fault as
# FILE:LINE: what is wrong, and exits with 1 when there is any, 2 when ROOT is no source tree.
set -eu

case "${1-}" in
  -h | --help)
    sed -n '2,7s/^# \{0,1\}//p' "$0"
    exit 0
    ;;
esac
root=${1:-$(dirname -- "$0")/..}
cd -- "$root" || exit 2
layers="platform records log remote include report src transport service tools"
for layer in $layers; do
  if [ -d "$layer" ]; then present="${present-} $layer"; fi
done
if [ -z "${present-}" ]; then
  echo "check_layers: no layer folder in $(pwd); expected some of: $layers" >&2
  exit 2
fi

# shellcheck disable=SC2086 # the folder names are words
find $present -type f \( -name '*.h' -o -name '*.hpp' -o -name '*.cpp' -o -name '*.cc' \) | sort |
  awk -v layers="$layers" '
    BEGIN {
      allowed["platform"]  = ""
      allowed["records"]   = ""
      allowed["log"]       = "platform"
      allowed["remote"]    = "records platform"
      allowed["include"]   = "records remote log platform report"
      allowed["report"]    = "remote records platform"
      allowed["src"]       = "platform records log remote include report"
      allowed["transport"] = "remote records platform"
      allowed["service"]   = "records include platform"
      allowed["tools"]     = "platform records log remote include report src transport service"
      count = split(layers, names, " ")
      for (i = 1; i <= count; ++i) ours[names[i]] = 1
    }

    function fault(text) {
      printf "%s:%d: %s\n", file, line, text
      faults++
    }

    function mayInclude(layer, target) {
      if (layer == target) return 1
      # The in-process transport is the one that holds a service.
      if (file ~ /^transport\/in_process/ && target == "service") return 1
      return index(" " allowed[layer] " ", " " target " ") > 0
    }

    function check(path, quoted,   target) {
      target = path
      sub(/\/.*/, "", target)
      if (path !~ /\// || path ~ /(^|\/)\.\.?\//) {
        # Generated protocol headers have no folder.
        if (quoted && path !~ /\.pb\.h$/)
          fault("\"" path "\" is not written from the root of the tree")
        return
      }
      if (!(target in ours)) return
      if (!quoted) fault("<" path "> is ours and takes quotation marks")
      if (!mayInclude(layer, target))
        fault(layer "/ may not include \"" path "\" (it may include: " \
              (allowed[layer] == "" ? "nothing of ours" : allowed[layer]) ")")
      # The service knows the plain types of the public headers, never the client itself.
      if (layer == "service" && path == "include/TolvarAPI.h")
        fault("service/ may not include the client, \"" path "\"")
    }

    {
      file = $0
      files++
      layer = file
      sub(/\/.*/, "", layer)
      line = 0
      while ((status = (getline text < file)) > 0) {
        line++
        if (text !~ /^[ \t]*#[ \t]*include[ \t]*["<]/) continue
        sub(/^[ \t]*#[ \t]*include[ \t]*/, "", text)
        quoted = substr(text, 1, 1) == "\""
        text = substr(text, 2)
        sub(/[">].*/, "", text)
        check(text, quoted)
      }
      if (status < 0) fault("cannot be read")
      close(file)
    }

    END {
      if (files == 0) { print "check_layers: no source files found"; exit 2 }
      if (faults > 0) { printf "check_layers: %d faults in %d files\n", faults, files; exit 1 }
      printf "check_layers: %d files keep to the layer table\n", files
    }
  '
