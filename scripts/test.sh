#!/usr/bin/env bash
# Installs what the tests need, builds them and runs them all.
#
# Usage: test.sh [PRESET...]     default: test asan
#
# The first preset that fails to build or to pass ends the script, so that the last lines are always
# the summary of the run that decided the exit status.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

presets=("$@")
if (($# == 0)); then
  presets=(test asan)
fi

install_packages "${build_packages[@]}" "${test_packages[@]}"
for preset in "${presets[@]}"; do
  heading "tests, preset $preset"
  quietly cmake --preset "$preset"
  cmake --build --preset "$preset"
  ctest --test-dir "build/$preset" --no-tests=error --output-on-failure -j"$(nproc)"
done
