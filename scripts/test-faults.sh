#!/usr/bin/env bash
# Tries every fault that tests/fault knows: the updater is killed at each call that changes
# something, each of its calls fails, its disk is full at every size. ctest tries a sample of them.
#
# Usage: test-faults.sh [--write-tables]
#
# --write-tables puts what came of them into docs/reliability.md, instead of comparing the two.
# Installs the packages it needs and builds the preset test. Ends with the numbers of faults and
# what became of them, and with the time it took.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

if (($# > 1)) || [[ ${1-} != @(|--write-tables) ]]; then
  fail 'usage: test-faults.sh [--write-tables]'
fi

# Debian's and Ubuntu's own Python is the one that has their pytest.
find_python() {
  for python in /usr/bin/python3 python3; do
    if "$python" -c 'import pytest' 2>/dev/null; then
      return
    fi
  done
  fail "no Python 3 with pytest was found: 'apt-get install python3-pytest'"
}

install_packages "${build_packages[@]}" "${test_packages[@]}"
find_python
quietly cmake --preset test
quietly cmake --build --preset test --target norvak_update no_unnamed_files
heading "every fault, $(nproc) runs at a time"
PYTHONDONTWRITEBYTECODE=1 "$python" -m pytest -q -rs tests/fault --faults all --jobs "$(nproc)" \
  --updater "$project/build/test/norvak_update" "$@"
