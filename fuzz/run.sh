#!/usr/bin/env bash
# Builds every fuzzer, replays the committed corpus and the saved crash inputs
# of each, then fuzzes each for the given number of seconds, one after the
# other.
#
#   fuzz/run.sh [seconds] [target ...]
#
# seconds: per target (default 15); 0 only replays. Targets: all of
# fuzz/targets.txt unless named. Environment: FUZZ_NICE (default 19),
# FUZZ_BUILD_JOBS (default 2), FUZZ_CXX (default clang++-14), FUZZ_FRESH=1
# forgets what earlier runs added in fuzz/out/corpus.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
source fuzz/common.sh
seconds=${1:-15}
[ $# -gt 0 ] && shift
if ! [[ $seconds =~ ^[0-9]+$ ]]; then
  echo "usage: fuzz/run.sh [seconds] [target ...]" >&2
  exit 2
fi

build=$root/build-fuzz
fuzz_build "$build"
fuzz_environment
mapfile -t targets < <(fuzz_targets "$@")

failed=()
summary=()
for target in "${targets[@]}"; do
  binary=$build/$target
  if [ ! -x "$binary" ]; then
    echo "no fuzz target $target" >&2
    exit 2
  fi
  log=$out/logs/$target.log
  mkdir -p "$out/logs" "$out/artifacts/$target" "$out/corpus/$target"
  mapfile -t options < <(fuzz_options "$target")
  known=()
  for folder in "$root/fuzz/corpus/$target" "$root/fuzz/regressions/$target"; do
    [ -d "$folder" ] && known+=("$folder")
  done

  # Every input kept so far must still pass.
  empty=$(mktemp -d)
  if ! run "$binary" -runs=0 -close_fd_mask=1 "${options[@]}" "$empty" "${known[@]}" \
    >"$out/logs/$target.replay.log" 2>&1; then
    rm -rf "$empty"
    echo "$target: a kept input fails (see $out/logs/$target.replay.log)"
    failed+=("$target (replay)")
    continue
  fi
  rm -rf "$empty"
  replayed=0
  [ ${#known[@]} -gt 0 ] && replayed=$(find "${known[@]}" -type f | wc -l)
  if [ "$seconds" -eq 0 ]; then
    summary+=("$(printf '%-18s %6d kept inputs replayed' "$target" "$replayed")")
    continue
  fi

  [ "${FUZZ_FRESH:-0}" = 1 ] && rm -rf "$out/corpus/$target" && mkdir -p "$out/corpus/$target"
  if run "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -close_fd_mask=1 \
    -print_final_stats=1 -artifact_prefix="$out/artifacts/$target/" "${options[@]}" \
    "$out/corpus/$target" "${known[@]}" >"$log" 2>&1; then
    status=passed
  else
    status="FAILED ($(ls -t "$out/artifacts/$target" | head -n 1))"
    failed+=("$target")
  fi
  read -r execs speed cov ft corp <<<"$(fuzz_summary "$log")"
  summary+=("$(printf '%-18s %6d replayed %10s execs %7s/s  cov %5s  ft %6s  corpus %5s  %s' \
    "$target" "$replayed" "$execs" "$speed" "$cov" "$ft" "$corp" "$status")")
done

if [ ${#summary[@]} -gt 0 ]; then printf '%s\n' "${summary[@]}"; fi
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzing found problems in: ${failed[*]} (logs in $out/logs, inputs in $out/artifacts)"
  exit 1
fi
