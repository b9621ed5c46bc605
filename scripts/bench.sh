#!/usr/bin/env bash
# Compares the program with other programs that do the same work, and writes docs/performance.md.
#
# Usage: bench.sh [MEASUREMENT...]
#
# Installs the packages it needs, builds the presets release and bench, and runs
# bench/side_by_side.py in a sandbox. If measurements are named (see that script), it runs only
# these and does not write the page; "micro" runs the micro-benchmarks. Needs ten minutes on a
# quiet machine and 4 GB of memory. Reports results that are uncertain because the machine was too
# busy.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

for measurement in "$@"; do
  if [[ ! $measurement =~ ^[a-z0-9]+$ ]]; then
    fail "usage: bench.sh [MEASUREMENT...]; the measurements are those of bench/side_by_side.py"
  fi
done
scripts/sandbox.sh true
prepare "${build_packages[@]}" "${bench_packages[@]}"
heading 'building the presets release and bench'
for preset in release bench; do
  configure "$preset"
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
  --norvak-host "$project/build/release/norvak_host" \
  --norvak-publish "$project/build/release/norvak_publish" \
  --subjects "$project/build/bench/bench" "${options[@]}"
