#!/usr/bin/env bash
# Fetches a few kernel modules of Debian's kernels, for tests that need real ones.
#
# Usage: fetch-kernel-modules.sh
#
# Takes the oldest and the newest kernel that Debian offers for amd64 and for i386, and leaves three
# modules of each below ~/.cache/norvak-tests/kernel-modules/RELEASE (XDG_CACHE_HOME counts).
# Nothing is installed. A complete cache is left alone; remove the directory to fetch again. The
# exit status is 77 on systems other than Debian.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

cache=${XDG_CACHE_HOME:-$HOME/.cache}/norvak-tests/kernel-modules
modules=(drivers/net/dummy.ko drivers/block/loop.ko drivers/net/tun.ko)

if [[ -e $cache/complete ]]; then
  exit
fi
if ! grep -qx 'ID=debian' /etc/os-release; then
  printf 'No kernel modules were fetched: this is not Debian.\n'
  exit 77
fi

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# $1: architecture; then a command of apt. apt works on package lists of its own, so a foreign
# architecture needs neither configuration nor root.
apt() {
  local architecture=$1 command=$2 state=$scratch/$1
  shift 2
  mkdir -p "$state/lists/partial" "$state/archives/partial"
  "apt-${command%%/*}" -qq -o "APT::Architecture=$architecture" -o "APT::Architectures=$architecture" \
    -o "Dir::State::lists=$state/lists" -o "Dir::State::status=/dev/null" -o "Dir::Cache=$state" \
    -o "APT::Sandbox::User=$(id -un)" "${command#*/}" "$@" </dev/null
}

# $1: architecture, $2: the end of the names of its kernels. Prints the packages to take.
choose_packages() {
  apt "$1" cache/pkgnames linux-image- | grep -E "^linux-image-[0-9.+deb-]+-$2\$" |
    grep -E '[0-9]\.[0-9]+\.[0-9]' | sort -V | sed -n '1p;$p' | uniq
}

# $1: package file, $2: release. Newer kernels have their modules compressed.
unpack_modules() {
  local module target=$scratch/modules/$2
  mkdir -p "$target"
  rm -rf "$scratch/unpacked"
  dpkg-deb -x "$1" "$scratch/unpacked"
  for module in "${modules[@]}"; do
    module=$(find "$scratch/unpacked" -path "*/kernel/$module*")
    if [[ $module == *.xz ]]; then
      xz -d "$module"
    fi
    mv "${module%.xz}" "$target/"
  done
}

for kernels in 'amd64 amd64' 'i386 686-pae'; do
  read -r architecture flavour <<<"$kernels"
  # One unreachable source of several does not matter here.
  apt "$architecture" get/update 2>"$scratch/update" || cat "$scratch/update"
  choose_packages "$architecture" "$flavour" >"$scratch/packages"
  if (($(wc -l <"$scratch/packages") < 2)); then
    fail "Debian offers fewer than two kernels for $architecture"
  fi
  while read -r package; do
    printf 'Fetching modules from %s\n' "$package"
    (cd "$scratch" && quietly apt "$architecture" get/download "$package")
    unpack_modules "$scratch/$package"_*.deb "${package#linux-image-}"
    rm "$scratch/$package"_*.deb
  done <"$scratch/packages"
done

mkdir -p "$(dirname "$cache")"
rm -rf "$cache"
mv "$scratch/modules" "$cache"
touch "$cache/complete"
