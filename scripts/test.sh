#!/usr/bin/env bash
# Installs the packages that the tests need, builds the tests and runs them all.
#
# Usage: test.sh [PRESET...]     default: test asan
#
# Stops at the first preset that cannot be built or whose tests fail, so that the last lines are
# always the summary of the preset that decided the exit status.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

presets=("$@")
if (($# == 0)); then
  presets=(test asan)
fi

# Prints the reasons for which tests were skipped, with their numbers of tests.
# $1: the log of ctest
show_skipped() {
  local reasons
  reasons=$(sed -n -E -e 's/^SKIPPED \[[0-9]+\] [^ ]+:[0-9]+: //p' -e '/: Skipped$/{n;p}' \
    -e 's/^skipped: //p' "$1" | sort | uniq -c)
  if [[ -n $reasons ]]; then
    printf '\nSkipped tests, by reason:\n%s\n' "$reasons"
  fi
}

packages=("${build_packages[@]}" "${test_packages[@]}")
if [[ " ${presets[*]} " == *\ @(asan|clang)\ * ]]; then
  packages+=("${fuzz_packages[@]}")
fi
prepare "${packages[@]}"
for preset in "${presets[@]}"; do
  heading "tests, preset $preset"
  configure "$preset"
  cmake --build --preset "$preset"
  status=0
  # Tests mostly wait, so two run per processor.
  ctest --test-dir "build/$preset" --no-tests=error --output-on-failure -j"$((2 * $(nproc)))" ||
    status=$?
  show_skipped "build/$preset/Testing/Temporary/LastTest.log"
  if ((status != 0)); then
    exit "$status"
  fi
done
