#!/usr/bin/env bash
# Makes packages and tests them: reproducible, loadable on all supported hosts, installed, upgraded
# and removed in fresh Debian systems. Then runs the system tests with the packaged updater and
# norvak_host.
#
# Usage: test-packages.sh [--full]
#
# Tests the package norvak-update for x86-64 in Debian 12; with --full, all packages in Debian 11,
# 12 and 13, and the system tests in a 32-bit system too. The exit status is 77 where roots
# (roots.sh) are not possible.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
. "$project/scripts/roots.sh"
cd "$project"

# Runs the system tests with the programs of the host package.
# $1: architecture
run_system_tests() {
  local programs=$project/build/packaged/$1 module
  g++ -std=c++17 -O2 -fPIC -shared -o "$programs/uname_answers.so" \
    tests/system/harness/uname_answers.cpp
  local options=(--updater="$programs/usr/sbin/norvak_update"
    --norvak-host="$programs/usr/sbin/norvak_host" --uname-answers="$programs/uname_answers.so")
  # norvak_publish is built for this release like any program: its own tests suffice.
  for module in tests/system/test_*.py; do
    if [[ $module != */test_publish* ]]; then
      printf '%s\0' "$module"
    fi
  done |
    # Tests mostly wait, so run two per processor. A module of which nothing can run ends with 77.
    PYTHONDONTWRITEBYTECODE=1 xargs -0 -n 1 -P "$((2 * $(nproc)))" \
      bash -c '/usr/bin/python3 -m pytest -q -rs "$@" || (($? == 77))' pytest "${options[@]}"
}

if [[ ${1-} == --inside ]]; then
  run_in_root i386-tests "$project/scripts/test-packages.sh" --system-tests i386
  exit
fi
if [[ ${1-} == --system-tests ]]; then
  run_system_tests "$2"
  exit
fi

reason=$(roots_unavailable amd64)
if [[ -n $reason ]]; then
  printf 'No packages were tested: %s\n' "$reason"
  exit 77
fi
install_packages "${package_test_packages[@]}"

packages=(amd64)
architectures=(amd64)
releases=(12)
selection=(-m 'not full')
if [[ ${1-} == --full ]]; then
  packages=(amd64 i386 publish)
  architectures=(amd64 i386)
  releases=(11 12 13)
  selection=()
fi

rm -rf build/packages  # may have packages of another version
./scripts/package.sh --with-next 99.0 "${packages[@]}"
heading 'packages made again elsewhere'
./scripts/test-reproducible.sh "${packages[@]}"

for release in "${releases[@]}"; do
  make_fresh_root "$release"
done
heading 'packages in fresh systems'
unshare --mount --propagation private -- /usr/bin/python3 -m pytest -q -rs tests/packages \
  --packages="$project/build/packages" "${selection[@]}"

heading 'system tests, packaged programs'
rm -rf build/packaged
for architecture in "${architectures[@]}"; do
  mkdir -p "build/packaged/$architecture"
  dpkg-deb --extract build/packages/norvak-update_*_"$architecture".deb "build/packaged/$architecture"
done
run_system_tests amd64

if [[ ${1-} == --full ]]; then
  heading 'system tests, packaged programs, 32-bit x86'
  make_i386_test_root
  unshare --mount --propagation private -- "$0" --inside
fi
