#!/usr/bin/env bash
# Source lines the committed corpus reaches: builds the fuzzers with coverage
# recording in build-fuzz-cov, runs each once over fuzz/corpus/<target> (no
# fuzzing) and prints, per target, the lines covered of the program files it
# reaches.
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
  mapfile -t options < <(fuzz_options "$target")
  LLVM_PROFILE_FILE=$profile.profraw run "$build/$target" -runs=0 -close_fd_mask=1 "${options[@]}" \
    "$root/fuzz/corpus/$target" >"$profile.log" 2>&1
  llvm-profdata-14 merge -sparse -o "$profile.profdata" "$profile.profraw"
  # Columns of a row: file, regions, missed, cover, functions, missed, executed, lines, missed, cover, ...
  llvm-cov-14 report "$build/$target" -instr-profile="$profile.profdata" "$root/src" |
    awk -v target="$target" '$1 ~ /\.(cpp|h)$/ && $7 != "0.00%" { lines += $8; missed += $9 }
      END { printf "%-18s %6d of %6d lines of the files it reaches (%.1f%%)\n", target, lines - missed, lines, 100 * (lines - missed) / lines }'
done
