#!/usr/bin/env bash
# Builds the preset release-i386 and runs its tests, both in a 32-bit x86 system.
#
# Usage: test-i386.sh
#
# The system is a root (roots.sh). The exit status is 77 where roots are not possible.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
. "$project/scripts/roots.sh"
cd "$project"

if [[ ${1-} == --inside ]]; then
  # shellcheck disable=SC2016  # the inner shell expands these
  run_in_root i386-tests /bin/bash -e -c '
    cd "$0"
    . scripts/lib.sh
    configure release-i386
    cmake --build --preset release-i386
    ctest --preset release-i386 --no-tests=error -j"$((2 * $(nproc)))"' "$project"
  exit
fi

reason=$(roots_unavailable i386)
if [[ -n $reason ]]; then
  printf 'Nothing was tested for 32-bit x86: %s\n' "$reason"
  exit 77
fi
make_i386_test_root
heading 'tests, preset release-i386'
exec unshare --mount --propagation private -- "$0" --inside
