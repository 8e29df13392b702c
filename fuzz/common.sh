# Shared by run.sh and coverage.sh, which set $root (the repository) first.

out=$root/fuzz/out
run() { nice -n "${FUZZ_NICE:-19}" "$@"; }

# Configures and builds the targets in the folder $1 (further arguments go to
# cmake), then writes the built seeds to $out/seeds.
fuzz_build() {
  local build=$1
  shift
  run cmake -S "$root/fuzz" -B "$build" -DCMAKE_CXX_COMPILER="${FUZZ_CXX:-clang++-14}" "$@" >/dev/null
  run cmake --build "$build" -j "${FUZZ_BUILD_JOBS:-2}" >/dev/null
  rm -rf "$out/seeds"
  # A coverage build records the seed maker's run too; keep that out of the tree.
  LLVM_PROFILE_FILE=$out/make_seeds.profraw run "$build/make_seeds" "$root" "$out/seeds" >/dev/null
}

# The targets named on the command line, or all of fuzz/targets/.
fuzz_targets() {
  if [ $# -gt 0 ]; then
    printf '%s\n' "$@"
    return
  fi
  local file
  for file in "$root"/fuzz/targets/*.cpp; do basename "$file" .cpp; done
}

# A target's settings stand in its source: "// fuzz-<key>: <value>".
fuzz_setting() {
  sed -n "s|^// fuzz-$2: *||p" "$root/fuzz/targets/$1.cpp" | head -n 1
}

# The seed folders of a target that exist, as absolute paths: hand-made,
# built by make_seeds, and the fixtures its source names.
fuzz_seed_folders() {
  local seeds
  for seeds in "fuzz/seeds/$1" "fuzz/out/seeds/$1" $(fuzz_setting "$1" seeds); do
    if [ -d "$root/$seeds" ]; then echo "$root/$seeds"; fi
  done
}
