# Shared by run.sh and grow.sh, which set $root (the repository) first.

out=$root/fuzz/out
run() { nice -n "${FUZZ_NICE:-19}" "$@"; }

# Configures and builds the fuzzers in the folder $1 (further arguments go to cmake).
fuzz_build() {
  local build=$1
  shift
  run cmake -S "$root/fuzz" -B "$build" -DCMAKE_CXX_COMPILER="${FUZZ_CXX:-clang++-14}" "$@" >/dev/null
  run cmake --build "$build" -j "${FUZZ_BUILD_JOBS:-2}" >/dev/null
}

# The targets named on the command line, or all of fuzz/targets.txt.
fuzz_targets() {
  if [ $# -gt 0 ]; then
    printf '%s\n' "$@"
    return
  fi
  awk '/^[a-z]/ { print $1 }' "$root/fuzz/targets.txt"
}

# A target's libFuzzer options from fuzz/targets.txt: dictionary and longest input.
fuzz_options() {
  awk -v name="$1" -v dicts="$root/fuzz/dict" '$1 == name {
    if ($2 != "-") printf "-dict=%s/%s\n", dicts, $2
    printf "-max_len=%s\n", $3
  }' "$root/fuzz/targets.txt"
}

# Where a fuzzer finds its symbolizer and prints its stacks.
fuzz_environment() {
  local symbolizer
  for symbolizer in /usr/lib/llvm-14/bin/llvm-symbolizer /usr/bin/llvm-symbolizer-14; do
    if [ -x "$symbolizer" ]; then
      export ASAN_SYMBOLIZER_PATH=$symbolizer
      break
    fi
  done
  export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
}

# The last statistics of a fuzzer's log: executions, speed, cov, ft, corpus.
fuzz_summary() {
  local log=$1 execs speed coverage
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  coverage=$(grep -E '^#[0-9]+' "$log" | tail -n 1 | sed -n 's/.* cov: \([0-9]*\) ft: \([0-9]*\) corp: \([0-9]*\).*/\1 \2 \3/p')
  read -r cov ft corp <<<"${coverage:-- - -}"
  echo "${execs:--} ${speed:--} $cov $ft $corp"
}
