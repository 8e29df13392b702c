#!/usr/bin/env bash
# Converts every flight in a folder with `kestrix -x` and prints the SHA-256
# of each KML document and of what the program printed, one line per file.
# The download time stamp of the document is blanked: it is the clock's.
# With --check the lines are compared with a stored list instead:
#   tests/convert_digests.sh --check build/kestrix tests/data/igc tests/data/golden/convert.sha256
set -euo pipefail
check=""
if [ "${1:-}" = "--check" ]; then check=1; shift; fi
kestrix=$(realpath "$1")
flights=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for flight in "$flights"/*.igc; do
  name=$(basename "$flight" .igc)
  cp "$flight" "$work/$name.igc"
  (cd "$work" && "$kestrix" "-x$name.igc" >"$name.out" 2>&1 || true)
  if [ -e "$work/$name.kml" ]; then
    sed -i -E 's/downloaded="[^"]*"/downloaded=""/' "$work/$name.kml"
    (cd "$work" && sha256sum "$name.kml")
  fi
  (cd "$work" && sha256sum "$name.out")
  rm -f "$work/$name".*
done >"$work/digests"
if [ -z "$check" ]; then cat "$work/digests"; exit 0; fi
diff -u "$3" "$work/digests"
