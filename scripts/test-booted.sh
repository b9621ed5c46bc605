#!/usr/bin/env bash
# Tests the packaged units, the recovery and the log rotation in Debian systems that are booted with
# their real systemd.
#
# Usage: test-booted.sh [--full]
#
# Tests in Debian 12; with --full, in Debian 13 too. --full also kills a run at each of its system
# calls instead of a sample, and stops the system suddenly at more of them. Needs root. Makes the
# host package, unless build/packages has one that is newer than everything it is made from. The
# exit status is 77 where roots (roots.sh) are not possible.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
. "$project/scripts/roots.sh"
cd "$project"

reason=$(roots_unavailable amd64)
if [[ -n $reason ]]; then
  printf 'No booted systems were tested: %s\n' "$reason"
  exit 77
fi
install_packages "${booted_test_packages[@]}"
make_booted_root 12
if [[ ${1-} == --full ]]; then
  make_booted_root 13
fi

made_from=(CHANGELOG.md CMakeLists.txt cmake deploy packaging src tools
  scripts/{lib,package,roots}.sh)
mkdir -p build/packages
package=$(find build/packages -maxdepth 1 -name 'norvak-update_*_amd64.deb')
if [[ ! -f $package || -n $(find "${made_from[@]}" -newer "$package" -print -quit) ]]; then
  rm -f build/packages/norvak-update_*_amd64.deb  # or there may be several, of different versions
  ./scripts/package.sh amd64
  package=$(echo build/packages/norvak-update_*_amd64.deb)
fi

tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
dpkg-deb --extract "$package" "$tree"

heading 'units and recovery in booted systems'
# Tests mostly wait, so two run per processor. Each of these workers boots a system of its own.
PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m pytest -q -rs --numprocesses="$((2 * $(nproc)))" \
  tests/booted --tree "$tree" "$@"
