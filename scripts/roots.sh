# shellcheck shell=bash disable=SC2154  # lib.sh sets project and the lists of packages
# Debian systems of other releases and architectures, each in a folder, called a root. Sourced after
# lib.sh.
#
# A root is made once with debootstrap and kept: its packages cannot interfere with the machine's
# own, and it is as bare as a fresh machine. Removing the folder removes all of it.

roots=${NORVAK_ROOTS:-/var/cache/norvak-update/roots}

# Prints why this machine cannot make or run a root; prints nothing if it can.
# $1: the architecture, amd64 or i386
roots_unavailable() {
  case $(uname -m) in
    x86_64) ;;
    i?86)
      if [[ $1 == amd64 ]]; then
        printf 'this machine cannot run 64-bit programs.'
        return
      fi
      ;;
    *)
      printf 'this machine cannot run programs for x86.'
      return
      ;;
  esac
  if ((EUID != 0)); then
    printf "it needs root: run 'sudo %s'." "$0"
  elif ! command -v apt-get >/dev/null || ! grep -qx 'ID=debian' /etc/os-release; then
    printf "it needs Debian's packages, which this machine does not use."
  fi
}

# The server that this machine's own packages come from.
debian_mirror() {
  local own
  own=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
  apt-get indextargets --format "\$(CODENAME) \$(SITE)" 'Created-By: Packages' |
    awk -v suite="$own" '$1 == suite {print $2; exit}'
}

# Makes the root $roots/NAME unless it is there with exactly these packages.
# $1: name; $2: suite; $3: architecture; then the packages beyond a minimal system
make_root() {
  local root=$roots/$1 suite=$2 architecture=$3
  shift 3
  install_packages debootstrap mount util-linux
  mkdir -p "$roots"
  # One maker at a time; the lock is released with the subshell.
  (
    flock 9
    if [[ -e $root/complete && $(<"$root/complete") == "$suite $architecture $*" ]]; then
      exit
    fi
    heading "Debian root ${root##*/}: $suite, $architecture"
    rm -rf "$root"
    # dpkg need not flush: a power cut can only damage this folder, which can be made again.
    mkdir -p "$root/etc/dpkg/dpkg.cfg.d"
    echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/unsafe-io"
    quietly debootstrap --arch="$architecture" --variant=minbase \
      --include="$(IFS=, && printf '%s' "$*")" "$suite" "$root" "$(debian_mirror)"
    printf '127.0.0.1 localhost\n' >"$root/etc/hosts"
    rm -rf "$root"/var/cache/apt/archives/*.deb "$root"/var/lib/apt/lists/*
    printf '%s\n' "$suite $architecture $*" >"$root/complete"
  ) 9>"$roots/.lock"
}

# Makes the root i386-tests: this machine's release for 32-bit x86, with what builds and tests need.
make_i386_test_root() {
  local suite
  suite=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
  make_root i386-tests "$suite" i386 "${build_packages[@]}" "${test_packages[@]}"
}

# Makes a root with what the host package depends on.
# $1: name; $2: release of Debian, 11, 12 or 13; then further packages
make_host_root() {
  local name=$1 suite libcurl=libcurl4
  case $2 in
    11) suite=bullseye ;;
    12) suite=bookworm ;;
    13) suite=trixie libcurl=libcurl4t64 ;;
  esac
  shift 2
  make_root "$name" "$suite" amd64 "$libcurl" "$@"
}

# Makes the root debian-RELEASE: a minimal system. $1: release
make_fresh_root() {
  make_host_root "debian-$1" "$1"
}

# Makes the root booted-RELEASE: a system with its real systemd, for systemd-nspawn. $1: release
make_booted_root() {
  make_host_root "booted-$1" "$1" systemd systemd-sysv dbus strace logrotate procps
}

# Makes the root build-KIND for a package; $1: amd64, i386 or publish. The host packages are built
# in Debian 11, whose glibc is the oldest of those that come with a C++17 compiler.
make_build_root() {
  if [[ $1 == publish ]]; then
    make_root build-publish bookworm amd64 "${build_packages[@]}" dpkg-dev file
    return
  fi
  make_root "build-$1" bullseye "$1" g++ cmake ninja-build libcurl4-openssl-dev libpugixml-dev \
    nlohmann-json3-dev zlib1g-dev dpkg-dev file rpm
  # Debian 11 has no CLI11. It consists of headers, which are the same everywhere.
  make_build_root publish
  (cd "$roots/build-publish" &&
    cp -a --parents -t "$roots/build-$1" usr/include/CLI usr/share/cmake/CLI11 \
      usr/share/doc/libcli11-dev)
}

# Runs a command in a copy of a root. Its changes are lost afterwards, except those below the
# project, which has the same path there. Must be called in a private mount namespace:
# unshare --mount --propagation private.
# $1: name of the root; then the command
run_in_root() {
  local root=$roots/$1 personality=linux64 scratch
  shift
  if [[ $(<"$root/complete") == *' i386 '* ]]; then
    personality=linux32
  fi
  scratch=$(mktemp -d)
  mount -t tmpfs scratch "$scratch"
  mkdir "$scratch"/{changes,work,root}
  mount -t overlay "${root##*/}" \
    -o "lowerdir=$root,upperdir=$scratch/changes,workdir=$scratch/work" "$scratch/root"
  root=$scratch/root
  mount -t proc proc "$root/proc"
  mount --rbind /dev "$root/dev"
  mount -t tmpfs tmp "$root/tmp"
  mkdir -p "$root$project"
  mount --bind "$project" "$root$project"
  # Not chroot: under it, /proc shows some paths as they are outside the root.
  mkdir "$root/.outside"
  # shellcheck disable=SC2016  # the inner shells expand these
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    setarch "$personality" unshare --mount --propagation private /bin/sh -e -c '
      cd "$0"
      pivot_root . .outside
      exec /bin/sh -e -c "umount --lazy /.outside; cd /; exec \"\$@\"" sh "$@"' "$root" "$@"
}
