#!/usr/bin/env bash
# Builds the preset release-i386 and runs its tests in a 32-bit x86 system of their own.
#
# Usage: test-i386.sh
#
# The system is a folder, build/i386-root, made once with debootstrap and kept: its packages cannot
# get into the way of the machine's own, and it is as bare as a fresh machine. The commands run in it
# with chroot, in a private mount namespace; removing the folder removes all of it. The exit status
# is 77 where that is not possible.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

root=$project/build/i386-root
packages=("${build_packages[@]}" "${test_packages[@]}")

# $1: why nothing was tested
skip() {
  printf 'Nothing was tested for 32-bit x86: %s\n' "$1"
  exit 77
}

case $(uname -m) in
  x86_64 | i?86) ;;
  *) skip 'this machine cannot run its programs.' ;;
esac
if ((EUID != 0)); then
  skip "its system needs root: run 'sudo $0'."
fi
if ! command -v apt-get >/dev/null; then
  skip 'its system is made of Debian packages, which this machine does not use.'
fi
if grep -qx 'ID=ubuntu' /etc/os-release; then
  skip 'Ubuntu no longer has all packages for it.'
fi

# The suite and server that this machine's own packages come from.
make_root() {
  local suite mirror
  suite=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
  mirror=$(apt-get indextargets --format "\$(CODENAME) \$(SITE)" 'Created-By: Packages' |
    awk -v suite="$suite" '$1 == suite {print $2; exit}')
  rm -rf "$root"
  # A power cut may cost the folder, but nothing else: nothing has to reach the disk at once.
  mkdir -p "$root/etc/dpkg/dpkg.cfg.d"
  echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/unsafe-io"
  quietly debootstrap --arch=i386 --variant=minbase \
    --include="$(IFS=, && printf '%s' "${packages[*]}")" "$suite" "$root" "$mirror"
  printf '127.0.0.1 localhost\n' >"$root/etc/hosts"
  printf '%s\n' "${packages[*]}" >"$root/complete"
}

# Runs in the private mount namespace. Tests make mounts private from "/" on, so that the root has to
# be a mount point.
enter_root() {
  mount --rbind "$root" "$root"
  mkdir -p "$root/src"
  mount --bind "$project" "$root/src"
  mount -t proc proc "$root/proc"
  mount --rbind /dev "$root/dev"
  mount -t tmpfs tmp "$root/tmp"
  # shellcheck disable=SC2016  # the inner shell asks for the number of processors
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    chroot "$root" /bin/bash -e -c '
      cd /src
      cmake --preset release-i386 >/dev/null
      cmake --build --preset release-i386
      ctest --preset release-i386 --no-tests=error -j"$((2 * $(nproc)))"'
}

if [[ ${1-} == --inside ]]; then
  enter_root
  exit
fi

install_packages debootstrap mount util-linux
if [[ ! -e $root/complete || $(<"$root/complete") != "${packages[*]}" ]]; then
  heading '32-bit x86 system'
  make_root
fi
heading 'tests, preset release-i386'
exec unshare --mount --propagation private -- "$0" --inside
