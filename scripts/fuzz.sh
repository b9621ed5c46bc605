#!/usr/bin/env bash
# Searches for inputs that break a fuzz target, starting with those in tests/fuzz/corpus.
#
# Usage: fuzz.sh TARGET SECONDS
#
# Installs the packages it needs and builds the preset asan. Leaves in build/fuzz the inputs that
# reached new code (inputs/TARGET, from which the next run continues), the input that broke the
# target (findings/TARGET) and the log of the run (fuzz-TARGET.log). The exit status is 0 if nothing
# was found.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

targets=$(cd tests/fuzz/corpus && printf '%s ' *)

# $1: target, $2: seconds; sets status
run_target() {
  mkdir -p "$inputs" "$findings"
  status=0
  "build/asan/tests/fuzz/fuzz_$1" -max_total_time="$2" -timeout=20 -keep_seed=1 \
    -print_final_stats=1 -dict="tests/fuzz/dictionaries/$1.dict" -artifact_prefix="$findings/" \
    "$inputs" "tests/fuzz/corpus/$1" >"$log" 2>&1 </dev/null || status=$?
}

count_files() {
  find "$1" -type f | wc -l
}

# The last counts that libFuzzer printed: executions, covered edges and features.
summary() {
  sed -n -E 's/^#([0-9]+).* cov: ([0-9]+) ft: ([0-9]+).*/\1 executions, \2 edges, \3 features/p' \
    "$log" | tail -n 1
}

if (($# != 2)) || [[ " $targets" != *" $1 "* || ! $2 =~ ^[1-9][0-9]*$ ]]; then
  fail "usage: fuzz.sh TARGET SECONDS; the targets are: $targets"
fi
inputs=build/fuzz/inputs/$1
findings=build/fuzz/findings/$1
log=build/fuzz/fuzz-$1.log

prepare "${build_packages[@]}" "${fuzz_packages[@]}"
configure asan
quietly cmake --build --preset asan --target "fuzz_$1"
heading "fuzzing $1 for $2 seconds"
run_target "$1" "$2"
if ((status != 0)); then
  tail -n 40 "$log"
fi
printf '%s, %s inputs kept, %s findings\n' "$(summary)" "$(count_files "$inputs")" \
  "$(count_files "$findings")"
printf 'Log: %s\n' "$log"
exit "$status"
