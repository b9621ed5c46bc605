#!/usr/bin/env bash
# Measures how much of src/ the tests run, line by line and branch by branch.
#
# Usage: coverage.sh [--write-table]
#
# Installs the packages it needs, builds the preset coverage and runs its unit tests, its system tests
# and the replayed inputs of the fuzz targets. tests/fault stays out: it looks at the system calls of
# the program, and the counting makes some of its own. Prints a table by file, every line that never
# ran, and the lines with branches that were never taken; --write-table puts all but the last into
# docs/coverage.md as well. The exit status is that of the tests.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

if (($# > 1)) || [[ ${1-} != @(|--write-table) ]]; then
  fail 'usage: coverage.sh [--write-table]'
fi

install_packages "${build_packages[@]}" "${test_packages[@]}" "${coverage_packages[@]}"
heading 'tests, preset coverage'
quietly cmake --preset coverage
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
status=0
ctest --preset coverage --no-tests=error -LE fault -j"$(nproc)" || status=$?

heading 'coverage of src/'
# Branches that only an exception can take are the compiler's, not the program's: left out.
gcovr --root . --filter src/ --object-directory build/coverage --exclude-throw-branches \
  --json build/coverage/coverage.json build/coverage
scripts/coverage_table.py build/coverage/coverage.json "$@"
exit "$status"
