#!/usr/bin/env bash
# Makes the packages: norvak-update for hosts, norvak-publish for update servers.
#
# Usage: package.sh [--with-next VERSION] [PACKAGE...]
#
# PACKAGE is amd64 or i386 (norvak-update, as .deb and .rpm) or publish; the default is all. The
# packages go to build/packages. With --with-next, the same contents also go to build/packages/next
# as VERSION, to test upgrades. The time in the packages is that of the last commit, or
# SOURCE_DATE_EPOCH: the same sources make the same packages, byte for byte. The exit status is 77
# where roots (roots.sh) are not possible.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
. "$project/scripts/roots.sh"
cd "$project"

next_version=
if [[ ${1-} == --with-next ]]; then
  next_version=$2
  shift 2
fi

# $1: directory
move_packages() {
  mkdir -p "$1"
  find . -maxdepth 1 '(' -name '*.deb' -o -name '*.rpm' ')' -exec mv -t "$1" {} +
}

# Runs in a root.
build() {
  local package=$1 build=/tmp/build output=$project/build/packages options
  # The debug symbols must not contain the names of these directories.
  local flags="-O2 -g -DNDEBUG -ffile-prefix-map=$project=. -ffile-prefix-map=$build=build"
  options=(-DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="$flags"
    -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_TESTING=OFF -DNORVAK_STATIC_RUNTIME=ON)
  if [[ $package == publish ]]; then
    options+=(-DNORVAK_HOST=OFF -DNORVAK_PUBLISH_PACKAGE=ON)
  else
    options+=(-DNORVAK_PORTABLE=ON -DNORVAK_PUBLISH=OFF)
  fi
  umask 022
  cmake -G Ninja -S . -B "$build" "${options[@]}"
  cmake --build "$build"
  if [[ $package != publish ]]; then
    mkdir -p /etc/dpkg/symbols
    cp packaging/deb/libcurl4.symbols "/etc/dpkg/symbols/libcurl4:$package.symbols"
  fi
  cd "$build"
  cpack
  cpack -D NORVAK_PACKAGE=debug
  if [[ $package != publish ]]; then
    cpack -G RPM -D NORVAK_PACKAGE=md5
  fi
  move_packages "$output"
  if [[ -n $next_version ]]; then
    cpack -R "$next_version"
    move_packages "$output/next"
  fi
}

case ${1-} in
  --inside)
    build "$2"
    exit
    ;;
  --enter)
    run_in_root "build-$2" env "SOURCE_DATE_EPOCH=$SOURCE_DATE_EPOCH" \
      "$project/scripts/package.sh" --with-next "$next_version" --inside "$2"
    exit
    ;;
esac

packages=("$@")
if (($# == 0)); then
  packages=(amd64 i386 publish)
fi
reason=$(roots_unavailable amd64)
if [[ -n $reason ]]; then
  printf 'No packages were made: %s\n' "$reason"
  exit 77
fi
SOURCE_DATE_EPOCH=$(source_date)
export SOURCE_DATE_EPOCH
for package in "${packages[@]}"; do
  make_build_root "$package"
  heading "package $package"
  quietly unshare --mount --propagation private -- \
    "$0" --with-next "$next_version" --enter "$package"
done
ls -l build/packages
