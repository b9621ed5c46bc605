#!/usr/bin/env bash
# Installs the named Debian or Ubuntu packages that are missing.
#
# Usage: install-packages.sh PACKAGE...
#
# A trailing '?' marks a package that only some releases provide.
# Installing needs root: the script calls sudo, or says what to run. Services of these packages are
# not started, and nginx and prometheus are not started at boot either, unless they were installed
# before.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

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

# Package scripts ask policy-rc.d whether they may start a service. If it exists already, the
# administrator has decided that.
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
  apt-get install -y -q --no-install-recommends \
    -o DPkg::Lock::Timeout=300 -o Dpkg::Use-Pty=0 "${@%\?}" </dev/null 2>&1 | show_progress
}

install_missing() {
  local packages output
  packages=("$@")
  printf 'Installing, with the packages that they need: %s\n' "${packages[*]%\?}"
  export DEBIAN_FRONTEND=noninteractive NEEDRESTART_MODE=l
  forbid_service_starts
  # The package lists are downloaded only if they are missing or turn out to be too old.
  if ! apt_install "${packages[@]}" >/dev/null; then
    # One unreachable source of several does not matter here.
    apt-get update -q </dev/null 2>&1 | show_progress >/dev/null || true
    mapfile -t packages < <(missing_packages "$@")
    if ! output=$(apt_install "${packages[@]}"); then
      printf '%s\n' "$output" >&2
      return 1
    fi
  fi
  local service
  for service in nginx prometheus; do
    if [[ " $* " == *" $service "* ]]; then
      update-rc.d "$service" disable  # in systemd as well
    fi
  done
}

main() {
  local missing
  if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    printf 'This is not a Debian or Ubuntu system. Make sure that these packages, which may have ' >&2
    printf 'other names here, are installed:\n  %s\n' "${*%\?}" >&2
    return 0
  fi
  mapfile -t missing < <(missing_packages "$@")
  if ((${#missing[@]} == 0)); then
    return 0
  fi
  if ((EUID == 0)); then
    install_missing "${missing[@]}"
    return
  fi
  printf 'Packages are missing, and only root can install them:\n' >&2
  printf '  apt-get update && apt-get install --no-install-recommends %s\n' "${missing[*]%\?}" >&2
  if ! sudo_works; then
    printf 'Run this as root: sudo is missing here, or has no terminal to ask for a password.\n' >&2
    return 1
  fi
  printf 'Calling sudo to do so.\n' >&2
  exec sudo -- "$0" "${missing[@]}"
}

main "$@"
