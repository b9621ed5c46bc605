#!/usr/bin/env bash
# Makes all packages and tests them: reproducible, loadable on all supported hosts, installed,
# upgraded and removed in fresh Debian systems; and runs the system tests with the packaged updater.
#
# Usage: test-packages.sh [--full]
#
# --full adds what takes longer: the 32-bit updater in a 32-bit system. The exit status is 77 where
# roots (roots.sh) are not possible.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
. "$project/scripts/roots.sh"
cd "$project"

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
  --packages="$project/build/packages" --next-packages="$project/build/next-packages" "$@"
