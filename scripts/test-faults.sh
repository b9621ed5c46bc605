#!/usr/bin/env bash
# Tries every fault that tests/fault knows: kills the updater at each call that changes something,
# makes each of its calls fail, fills its disk at every size. ctest tries a sample of them.
#
# Usage: test-faults.sh [--write-tables]
#
# Compares the outcomes with docs/reliability.md; --write-tables writes them into that page instead.
# Installs the packages it needs and builds the preset test. Ends with the number of faults by
# outcome and the time they took.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

if (($# > 1)) || [[ ${1-} != @(|--write-tables) ]]; then
  fail 'usage: test-faults.sh [--write-tables]'
fi

prepare "${build_packages[@]}" "${test_packages[@]}"
configure test
python=$(sed -n 's/^NORVAK_PYTHON:FILEPATH=//p' build/test/CMakeCache.txt)
quietly cmake --build --preset test --target norvak_update no_unnamed_files
heading "every fault, $(nproc) runs at a time"
PYTHONDONTWRITEBYTECODE=1 "$python" -m pytest -q -rs tests/fault --faults all --jobs "$(nproc)" \
  --updater "$project/build/test/norvak_update" "$@"
