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

# LeakSanitizer looks for its process in /proc, so /proc must belong to the current PID namespace.
# In some containers it belongs to the outer one: then the script starts itself again with its own.
# Returns 1 if that is not allowed.
enter_own_proc() {
  local pid
  read -r pid _ </proc/self/stat
  if [[ $pid == "$$" ]]; then
    return 0
  fi
  if ! unshare --mount mount -t proc proc /proc 2>/dev/null; then
    return 1
  fi
  # shellcheck disable=SC2016  # the inner shell expands these
  exec unshare --mount sh -c 'mount -t proc proc /proc && exec "$0" "$@"' "$0" "$@"
}

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

packages=("${build_packages[@]}" "${test_packages[@]}" "${browser_packages[@]}")
if [[ " ${presets[*]} " == *\ @(asan|clang)\ * ]]; then
  packages+=("${fuzz_packages[@]}")
fi
prepare "${packages[@]}"
# Without these modules, the tests that need them are skipped and say so.
scripts/fetch-kernel-modules.sh || true
has_own_proc=yes
enter_own_proc "$@" || has_own_proc=
for preset in "${presets[@]}"; do
  heading "tests, preset $preset"
  if [[ $preset == asan && ! $has_own_proc ]]; then
    printf 'SKIPPED: /proc belongs to another PID namespace, and this user may not mount another.\n'
    continue
  fi
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
