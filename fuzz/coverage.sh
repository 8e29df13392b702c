#!/usr/bin/env bash
# Source coverage the fuzz corpora reach. Builds the targets with coverage
# recording in build-fuzz-cov, runs each once over its corpus and seeds (no
# fuzzing), and prints line and branch coverage of every program file the
# target reaches.
#
#   fuzz/coverage.sh [target ...]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
source fuzz/common.sh
build=$root/build-fuzz-cov
fuzz_build "$build" -DKESTRIX_FUZZ_COVERAGE=ON
mapfile -t targets < <(fuzz_targets "$@")

mkdir -p "$out/coverage"
for target in "${targets[@]}"; do
  profile=$out/coverage/$target
  rm -f "$profile".profraw
  mapfile -t seeds < <(fuzz_seed_folders "$target")
  options=(-runs=0 -close_fd_mask=1)
  maxlen=$(fuzz_setting "$target" max-len)
  [ -n "$maxlen" ] && options+=(-max_len="$maxlen")
  mkdir -p "$out/corpus/$target"
  LLVM_PROFILE_FILE=$profile.profraw run "$build/$target" "${options[@]}" "$out/corpus/$target" "${seeds[@]}" \
    >"$profile.log" 2>&1
  llvm-profdata-14 merge -sparse -o "$profile.profdata" "$profile.profraw"
  echo "== $target: lines and branches covered, by file and by function reached"
  # Columns: file, regions, missed, cover, functions, missed, executed,
  # lines, missed, cover, branches, missed, cover.
  llvm-cov-14 report "$build/$target" -instr-profile="$profile.profdata" "$root/src" |
    awk '$1 ~ /\.(cpp|h)$/ && $7 != "0.00%" { print $1, $10, $8, $13, $11 }' |
    while read -r file lines lineCount branches branchCount; do
      printf '  src/%-36s %8s of %4d  %8s of %4d\n' "$file" "$lines" "$lineCount" "$branches" "$branchCount"
      # Columns: function, regions, missed, cover, lines, missed, cover, branches, missed, cover.
      llvm-cov-14 report -show-functions "$build/$target" -instr-profile="$profile.profdata" "$root/src/$file" |
        awk 'NF == 10 && $1 != "TOTAL" && $7 ~ /%$/ && $7 != "0.00%" { sub(/^.*:/, "", $1); print $1, $7, $5, $10, $8 }' |
        while read -r name lines lineCount branches branchCount; do
          printf '    %-36s %8s of %4d  %8s of %4d\n' "$(c++filt -p "$name" | sed 's/(anonymous namespace):://g' | cut -c1-36)" "$lines" "$lineCount" \
            "$branches" "$branchCount"
        done
    done
done
