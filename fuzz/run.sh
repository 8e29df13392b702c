#!/usr/bin/env bash
# Builds every fuzz target, replays the saved crash inputs of each, then fuzzes
# each target for the given number of seconds, one after the other.
#
#   fuzz/run.sh [seconds] [target ...]
#
# seconds: per target (default 15); 0 only replays the saved inputs.
# Targets: all of fuzz/targets/*.cpp unless named.
# Environment: FUZZ_NICE (default 19), FUZZ_BUILD_JOBS (default 2),
# FUZZ_CXX (default clang++-14), FUZZ_FRESH=1 starts from the seeds alone
# instead of the corpora earlier runs left in fuzz/out/corpus, FUZZ_RUNS=N
# also ends a target after N executions (a campaign: FUZZ_RUNS=1000000
# fuzz/run.sh 600 runs each target to a million executions or ten minutes).
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
mapfile -t targets < <(fuzz_targets "$@")

for symbolizer in /usr/lib/llvm-14/bin/llvm-symbolizer /usr/bin/llvm-symbolizer-14; do
  if [ -x "$symbolizer" ]; then
    export ASAN_SYMBOLIZER_PATH=$symbolizer
    break
  fi
done
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}

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

  # Saved crash inputs first: each must now pass.
  regressions=()
  if [ -d "$root/fuzz/regressions/$target" ]; then
    mapfile -t regressions < <(find "$root/fuzz/regressions/$target" -type f ! -name '.*' | sort)
  fi
  if [ ${#regressions[@]} -gt 0 ]; then
    if ! run "$binary" -close_fd_mask=1 "${regressions[@]}" >"$out/logs/$target.replay.log" 2>&1; then
      echo "$target: a saved crash input fails again (see $out/logs/$target.replay.log)"
      failed+=("$target (replay)")
      continue
    fi
  fi
  [ "$seconds" -eq 0 ] && {
    summary+=("$(printf '%-18s %3d saved inputs replayed' "$target" "${#regressions[@]}")")
    continue
  }

  [ "${FUZZ_FRESH:-0}" = 1 ] && rm -rf "$out/corpus/$target" && mkdir -p "$out/corpus/$target"
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -close_fd_mask=1 -print_final_stats=1
    -artifact_prefix="$out/artifacts/$target/")
  [ -n "${FUZZ_RUNS:-}" ] && options+=(-runs="$FUZZ_RUNS")
  dict=$(fuzz_setting "$target" dict)
  [ -n "$dict" ] && options+=(-dict="$root/fuzz/dict/$dict")
  maxlen=$(fuzz_setting "$target" max-len)
  [ -n "$maxlen" ] && options+=(-max_len="$maxlen")
  mapfile -t seeds < <(fuzz_seed_folders "$target")
  corpora=("$out/corpus/$target" "${seeds[@]}")

  if run "$binary" "${options[@]}" "${corpora[@]}" >"$log" 2>&1; then
    status=passed
  else
    status="FAILED ($(ls -t "$out/artifacts/$target" | head -n 1))"
    failed+=("$target")
  fi
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  coverage=$(grep -E '^#[0-9]+' "$log" | tail -n 1 | sed -n 's/.* cov: \([0-9]*\) ft: \([0-9]*\) corp: \([0-9]*\).*/\1 \2 \3/p')
  read -r cov ft corp <<<"${coverage:-- - -}"
  summary+=("$(printf '%-18s %10s execs %7s/s  cov %5s  ft %6s  corpus %5s  %s' \
    "$target" "${execs:--}" "${speed:--}" "$cov" "$ft" "$corp" "$status")")
done

if [ ${#summary[@]} -gt 0 ]; then printf '%s\n' "${summary[@]}"; fi
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzing found problems in: ${failed[*]} (logs in $out/logs, inputs in $out/artifacts)"
  exit 1
fi
