#!/usr/bin/env bash
# Whole-process time of `kestrix -x` beside the same conversion by gpsbabel
# (-i igc -o kml, which does no analysis) on the four long real flights and
# on two short ones (3,914 and 5,175 fixes): per flight the median of 5 runs
# of each after a warm-up, the ratio gpsbabel / kestrix, and kestrix's peak
# memory. gpsbabel refuses the task (C) lines of the short ones; both
# programs then convert the flight without them (marked *), which kestrix
# ignores anyway. Builds nothing:
#   bench/convert_vs_gpsbabel.sh [path/to/kestrix]   (default build-bench/kestrix)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
kestrix=$(realpath "${1:-$here/../build-bench/kestrix}")
flights="$here/../tests/data/igc"
runs=5
command -v gpsbabel >/dev/null || { echo "gpsbabel is missing (scripts/setup.sh installs it)" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "/usr/bin/time is missing" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Microseconds now, from bash's own clock.
now() { local t=$EPOCHREALTIME; echo "${t//[^0-9]/}"; }

# Median of the numbers given, in milliseconds with one decimal.
median_ms() {
  local sorted
  sorted=$(printf '%s\n' "$@" | sort -n)
  local middle
  middle=$(echo "$sorted" | sed -n "$((($# + 1) / 2))p")
  printf '%d.%d' $((middle / 1000)) $((middle % 1000 / 100))
}

printf '%-36s %8s %12s %12s %10s %9s\n' flight fixes "kestrix ms" "gpsbabel ms" "ratio" "peak MiB"
for name in pg-oudien-12h pg-oudie-10h-outreturn-task pg-xctrack-10h-fai-task pg-cfd-dupfixes \
  pg-brauniger-compeo-task hg-flytec6030-litespeed-task; do
  cp "$flights/$name.igc" "$work/$name.igc"
  fixes=$(grep -c '^B' "$work/$name.igc")
  label=$name
  readable=1
  if ! gpsbabel -i igc -f "$work/$name.igc" -o kml -F "$work/$name.gpsbabel.kml" >/dev/null 2>&1; then
    grep -v '^C' "$flights/$name.igc" >"$work/$name.igc"
    label="$name*"
    gpsbabel -i igc -f "$work/$name.igc" -o kml -F "$work/$name.gpsbabel.kml" >/dev/null 2>&1 || readable=0
  fi
  # Warm-ups: the file in the page cache, both programs loaded once.
  (cd "$work" && "$kestrix" "-x$name.igc" >/dev/null)
  ours=() theirs=()
  for ((i = 0; i < runs; ++i)); do
    # kestrix flushes its file to the disk before it replaces the old one;
    # gpsbabel's output, still in the page cache, would be flushed with it.
    sync
    start=$(now)
    (cd "$work" && "$kestrix" "-x$name.igc" >/dev/null)
    ours+=($(($(now) - start)))
    [ "$readable" = 1 ] || continue
    sync
    start=$(now)
    gpsbabel -i igc -f "$work/$name.igc" -o kml -F "$work/$name.gpsbabel.kml"
    theirs+=($(($(now) - start)))
  done
  peak=$(cd "$work" && /usr/bin/time -f %M "$kestrix" "-x$name.igc" 2>&1 >/dev/null | tail -n 1)
  a=$(median_ms "${ours[@]}")
  b=refused ratio=-
  if [ "$readable" = 1 ]; then
    b=$(median_ms "${theirs[@]}")
    ratio=$(awk -v a="$a" -v b="$b" 'BEGIN { printf "%.1f", b / a }')
  fi
  printf '%-36s %8d %12s %12s %10s %9s\n' "$label" "$fixes" "$a" "$b" "$ratio" \
    "$(awk -v k="$peak" 'BEGIN { printf "%.1f", k / 1024 }')"
  rm -f "$work/$name".*
done
