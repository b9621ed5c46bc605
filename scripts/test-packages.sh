#!/usr/bin/env bash
# Makes all packages and tests them: reproducible, loadable on all supported hosts, installed,
# upgraded and removed in fresh Debian systems. Then runs the system tests with the packaged
# updater and norvak_host.
#
# Usage: test-packages.sh [--full]
#
# --full runs the system tests with the i386 programs too, in a 32-bit system. The exit status is 77
# where roots (roots.sh) are not possible.
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

./scripts/package.sh
./scripts/package.sh --output build/next-packages --version 99.0 amd64
heading 'packages made again elsewhere'
./scripts/test-reproducible.sh

make_fresh_roots
heading 'packages in fresh systems'
unshare --mount --propagation private -- /usr/bin/python3 -m pytest -q -rs tests/packages \
  --packages="$project/build/packages" --next-packages="$project/build/next-packages"

heading 'system tests, packaged programs'
rm -rf build/packaged
for architecture in amd64 i386; do
  mkdir -p "build/packaged/$architecture"
  dpkg-deb --extract build/packages/norvak-update_*_"$architecture".deb "build/packaged/$architecture"
done
run_system_tests amd64

if [[ ${1-} == --full ]]; then
  heading 'system tests, packaged programs, 32-bit x86'
  make_i386_test_root
  unshare --mount --propagation private -- "$0" --inside
fi
