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

packages=("${build_packages[@]}" "${test_packages[@]}")
if [[ " ${presets[*]} " == *\ @(asan|clang)\ * ]]; then
  packages+=("${fuzz_packages[@]}")
fi
install_packages "${packages[@]}"
# Most tests wait for a disk, a server or a process of theirs: more of them run than processors.
for preset in "${presets[@]}"; do
  heading "tests, preset $preset"
  quietly cmake --preset "$preset"
  cmake --build --preset "$preset"
  ctest --test-dir "build/$preset" --no-tests=error --output-on-failure -j"$((2 * $(nproc)))"
done
