#!/usr/bin/env bash
# Measures which lines and branches of src/ the tests run.
#
# Usage: coverage.sh
#
# Installs the packages it needs, builds the preset coverage (g++, not optimised) and runs its unit
# tests, its system tests and the replayed inputs of the fuzz targets. Prints a table by file, every
# line that never ran, and the lines with branches that were never taken. The exit status is that of
# the tests.
#
# Not counted:
# - tests/fault: it identifies faults by the system calls of the program, and counting adds calls.
# - Runs that a signal ends: a killed or aborted process does not write its counts.
# - Branches that only an exception can take: the compiler adds them to nearly every call.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

if (($# > 0)); then
  fail 'usage: coverage.sh'
fi

prepare "${build_packages[@]}" "${test_packages[@]}" "${coverage_packages[@]}"
heading 'tests, preset coverage'
configure coverage
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
status=0
ctest --preset coverage --no-tests=error -LE fault -j"$(nproc)" || status=$?

heading 'coverage of src/'
gcovr --root . --filter src/ --object-directory build/coverage --exclude-throw-branches \
  --json build/coverage/coverage.json build/coverage
scripts/coverage_table.py build/coverage/coverage.json
exit "$status"
