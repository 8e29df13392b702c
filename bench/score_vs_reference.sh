#!/usr/bin/env bash
# Times kestrix-score against the JavaScript solver igc-xc-score (npm) on the
# same flights in one run: all three searches (free distance, flat and FAI
# triangle) with the rules that make both compute the same thing (see
# bench/xc_reference.mjs). Prints the wall times, the ratio and both scores.
#
#   bench/score_vs_reference.sh [FLIGHT.igc ...]   (default: pg-oudien-12h.igc)
#
# Needs what scripts/setup.sh installs, plus node and npm. The solver is
# installed once into $KESTRIX_XC_CACHE (default ~/.cache/kestrix/igc-xc-score);
# kestrix-score is built in Release mode into build-score-bench/ unless
# $KESTRIX_SCORE names a binary. kestrix-score runs 5 times (the median
# counts), the solver once: it takes minutes.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
cache=${KESTRIX_XC_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/kestrix/igc-xc-score}
version=1.8.0

if [ ! -f "$cache/node_modules/igc-xc-score/package.json" ]; then
  echo "installing igc-xc-score $version into $cache" >&2
  mkdir -p "$cache"
  npm install --silent --no-audit --no-fund --prefix "$cache" "igc-xc-score@$version" >&2
fi

score=${KESTRIX_SCORE:-}
if [ -z "$score" ]; then
  echo "building kestrix-score (Release) in build-score-bench/" >&2
  cmake -S "$root" -B "$root/build-score-bench" -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$root/build-score-bench" -j2 --target kestrix-score >/dev/null
  score=$root/build-score-bench/kestrix-score
fi

flights=("$@")
if [ ${#flights[@]} -eq 0 ]; then flights=("$root/tests/data/igc/pg-oudien-12h.igc"); fi

now() { date +%s.%N; }
seconds() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }

printf '%-34s %12s %12s %9s   %s\n' flight kestrix-score igc-xc-score ratio "scores km (free flat fai): kestrix-score / igc-xc-score"
for flight in "${flights[@]}"; do
  times=()
  for _ in 1 2 3 4 5; do
    start=$(now)
    json=$("$score" "$flight" --json)
    times+=("$(seconds "$start" "$(now)")")
  done
  ours=$(printf '%s\n' "${times[@]}" | sort -n | sed -n 3p)
  mine=$(printf '%s' "$json" | node -e 'let t = ""; process.stdin.on("data", (c) => (t += c)).on("end", () => {
    const d = JSON.parse(t); console.log(["free", "flat", "fai"].map((k) => d[k].score.toFixed(3)).join(" ")); });')

  start=$(now)
  theirs_out=$(node --max-old-space-size=8192 "$here/xc_reference.mjs" "$cache" "$flight")
  theirs=$(seconds "$start" "$(now)")
  reference=$(printf '%s\n' "$theirs_out" | awk -F'\t' '{ printf "%s%.3f", (NR > 1 ? " " : ""), $3 }')

  ratio=$(awk -v a="$ours" -v b="$theirs" 'BEGIN { printf "%.0f", b / a }')
  printf '%-34s %11ss %11ss %8sx   %s / %s\n' "$(basename "$flight")" "$ours" "$theirs" "$ratio" "$mine" "$reference"
done
