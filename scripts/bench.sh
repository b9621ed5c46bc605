#!/usr/bin/env bash
# Measures the program against those that do the same, and writes docs/performance.md.
#
# Usage: bench.sh [MEASUREMENT...]
#
# Installs the packages it needs, builds the presets release and bench, and runs bench/side_by_side.py
# in a sandbox. With names of measurements (those of that script) it runs only these and leaves
# docs/performance.md alone; "micro" runs the micro-benchmarks. Takes four minutes on a quiet machine,
# and 4 GB of memory, and says so where the machine was too busy to tell.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

for measurement in "$@"; do
  if [[ ! $measurement =~ ^[a-z0-9]+$ ]]; then
    fail "usage: bench.sh [MEASUREMENT...]; the measurements are those of bench/side_by_side.py"
  fi
done
install_packages "${build_packages[@]}" "${bench_packages[@]}"
heading 'building the presets release and bench'
for preset in release bench; do
  quietly cmake --preset "$preset"
  quietly cmake --build --preset "$preset"
done

if [[ $* == micro ]]; then
  exec build/bench/bench/norvak_micro_bench
fi
options=()
for measurement in "$@"; do
  options+=(--only "$measurement")
done
if (($# == 0)); then
  options=(--page "$project/docs/performance.md" --picture "$project/docs/performance.svg")
fi
heading 'measuring'
scripts/sandbox.sh /usr/bin/python3 "$project/bench/side_by_side.py" \
  --updater "$project/build/release/norvak_update" \
  --subjects "$project/build/bench/bench" "${options[@]}"
