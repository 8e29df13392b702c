#!/usr/bin/env bash
# Fails when a file in src/ includes a header of a higher layer. The layers,
# bottom to top; a file may include its own layer and those below it.
set -euo pipefail
cd "$(dirname "$0")/../src"
layers=(core geo link igc track output "serial usb" "driver score")
rank() {
  for i in "${!layers[@]}"; do
    for name in ${layers[$i]}; do
      [ "$name" = "$1" ] && { echo "$i"; return; }
    done
  done
  echo "unknown layer: $1" >&2
  exit 2
}
bad=0
for file in */*.h */*.cpp; do
  own=$(rank "${file%%/*}")
  while IFS= read -r included; do
    [ "$(rank "${included%%/*}")" -le "$own" ] && continue
    echo "$file includes $included from a higher layer"
    bad=1
  done < <(sed -n 's/^#include "\([a-z]*\/[^"]*\)".*/\1/p' "$file")
done
[ "$bad" -eq 0 ] && echo "layers: no include points up"
exit "$bad"
