#!/usr/bin/env bash
# A campaign that grows the committed corpus: each target fuzzes from its
# corpus (and any seed folders given) until it has run RUNS inputs or
# SECONDS have passed, then the corpus is minimised (libFuzzer's merge keeps
# the fewest inputs that reach the same features) and replaces
# fuzz/corpus/<target>. Prints one table row per target.
#
#   fuzz/grow.sh [RUNS [SECONDS [target ...]]]     (default 1000000 1800)
# Environment: FUZZ_SEEDS, folders whose <target>/ subfolders also seed it.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
source fuzz/common.sh
runs=${1:-1000000}
seconds=${2:-1800}
[ $# -gt 0 ] && shift
[ $# -gt 0 ] && shift
build=$root/build-fuzz
fuzz_build "$build"
fuzz_environment
mapfile -t targets < <(fuzz_targets "$@")

echo "| Target | Executions | Per second | Edges (cov) | Features (ft) | Corpus files | Corpus KiB |"
echo "|---|---:|---:|---:|---:|---:|---:|"
for target in "${targets[@]}"; do
  corpus=$root/fuzz/corpus/$target
  work=$out/grow/$target
  rm -rf "$work" && mkdir -p "$work/new" "$work/merged" "$corpus" "$out/artifacts/$target"
  mapfile -t options < <(fuzz_options "$target")
  seeds=("$corpus")
  for folder in ${FUZZ_SEEDS:-}; do
    [ -d "$folder/$target" ] && seeds+=("$folder/$target")
  done
  log=$work/fuzz.log
  run "$build/$target" -runs="$runs" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$out/artifacts/$target/" "${options[@]}" \
    "$work/new" "${seeds[@]}" >"$log" 2>&1 || { echo "$target: fuzzing failed (see $log)" >&2; exit 1; }
  run "$build/$target" -merge=1 -close_fd_mask=1 "${options[@]}" "$work/merged" "${seeds[@]}" "$work/new" \
    >"$work/merge.log" 2>&1 || { echo "$target: merge failed (see $work/merge.log)" >&2; exit 1; }
  rm -rf "$corpus" && mv "$work/merged" "$corpus"
  read -r execs speed cov ft _ <<<"$(fuzz_summary "$log")"
  files=$(find "$corpus" -type f | wc -l)
  kib=$(du -sk "$corpus" | cut -f1)
  echo "| \`$target\` | $execs | $speed | $cov | $ft | $files | $kib |"
done
