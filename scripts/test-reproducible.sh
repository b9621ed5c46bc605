#!/usr/bin/env bash
# Makes the packages a second time, in another directory, and compares them with build/packages.
#
# Usage: test-reproducible.sh [PACKAGE...]
#
# The packages are those of package.sh, which must have made them before.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

SOURCE_DATE_EPOCH=$(source_date)
export SOURCE_DATE_EPOCH
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
copy=$scratch/another/directory
mkdir -p "$copy"
git ls-files -z | xargs -0 cp --no-dereference --parents --target-directory="$copy"
touch -d 2001-01-01 "$copy"/*
quietly env TZ=NPT-05:45 bash -c "umask 077; '$copy/scripts/package.sh' $*"

differing=()
for package in "$copy"/build/packages/*; do
  cmp "$package" "build/packages/${package##*/}" || differing+=("${package##*/}")
done
((${#differing[@]} == 0)) || fail "not reproducible: ${differing[*]}"
