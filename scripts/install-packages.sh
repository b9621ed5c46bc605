#!/usr/bin/env bash
# Installs the named Debian or Ubuntu packages that are missing, and nothing when none is.
#
# Usage: install-packages.sh PACKAGE...
#
# A name with a question mark behind it is for those releases only that have such a package.
# Installing needs root: the script asks sudo for it, or says what to run. Services that come with
# the packages are not started now; the next boot starts them as their packages have it.
set -euo pipefail

# $1: name
exists_here() {
  ! compgen -G '/var/lib/apt/lists/*Packages*' >/dev/null || apt-cache show "$1" >/dev/null 2>&1
}

missing_packages() {
  local package name
  for package in "$@"; do
    name=${package%\?}
    if dpkg-query -W -f '${db:Status-Status}\n' "$name" 2>/dev/null | grep -qx installed; then
      continue
    fi
    if [[ $package == "$name" ]] || exists_here "$name"; then
      printf '%s\n' "$package"
    fi
  done
}

# Maintainer scripts ask policy-rc.d whether they may start a service. One that stands there
# already is its owner's decision and stays.
forbid_service_starts() {
  local policy=/usr/sbin/policy-rc.d
  if [[ -e $policy || -L $policy ]]; then
    return
  fi
  trap 'rm -f /usr/sbin/policy-rc.d' EXIT
  trap 'exit 1' HUP INT TERM
  printf '#!/bin/sh\nexit 101\n' >"$policy"
  chmod 0755 "$policy"
}

apt_install() {
  apt-get install -y -qq --no-install-recommends \
    -o DPkg::Lock::Timeout=300 -o Dpkg::Use-Pty=0 "${@%\?}" </dev/null
}

main() {
  local missing output
  if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    printf 'This is no Debian or Ubuntu system; these packages, under the names they have here, ' >&2
    printf 'are needed:\n  %s\n' "${*%\?}" >&2
    return 0
  fi
  mapfile -t missing < <(missing_packages "$@")
  if ((${#missing[@]} == 0)); then
    return 0
  fi
  if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
      printf 'Packages are missing, and installing them needs root. Run as root:\n' >&2
      printf '  apt-get update && apt-get install --no-install-recommends %s\n' "${missing[*]%\?}" >&2
      return 1
    fi
    exec sudo -- "$0" "${missing[@]}"
  fi

  printf 'Installing %s\n' "${missing[*]%\?}"
  export DEBIAN_FRONTEND=noninteractive NEEDRESTART_MODE=l
  forbid_service_starts
  # The package lists are fetched only when they are missing or turn out to be too old.
  if ! apt_install "${missing[@]}" >/dev/null 2>&1; then
    apt-get update -qq </dev/null || true  # one unreachable source of several does not matter here
    mapfile -t missing < <(missing_packages "$@")
    if ! output=$(apt_install "${missing[@]}" 2>&1); then
      printf '%s\n' "$output" >&2
      return 1
    fi
  fi
}

main "$@"
