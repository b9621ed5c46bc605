#!/usr/bin/env bash
# Runs a command where it can mount what it likes and signal only what it started.
#
# Usage: sandbox.sh COMMAND...
#
# COMMAND gets the path of an empty scratch folder as one more argument. It runs with root's rights in
# private mount and process namespaces; those need root, unprivileged user namespaces or sudo. When it
# ends, or the sandbox is interrupted, no process of it stays and the scratch folder is removed.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# The first process of the namespaces dies with unshare, and with that process all others.
sandbox=(unshare --mount --pid --fork --kill-child)
scratch=
pid=

sandbox_works() {
  reason=$("${sandbox[@]}" mount --bind "$scratch" /var/log 2>&1)
}

clean_up() {
  trap '' HUP INT TERM
  if [[ -n $pid ]]; then
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  fi
  # The last processes may be a moment behind.
  for _ in {1..50}; do
    if rm -rf "$scratch" 2>/dev/null; then
      break
    fi
    sleep 0.1
  done
}
trap clean_up EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

scratch=$(mktemp -d)
if ! sandbox_works; then
  sandbox+=(--user --map-root-user)
  if ! sandbox_works; then
    if ((EUID != 0)) && command -v sudo >/dev/null; then
      rmdir "$scratch"
      exec sudo -- "$0" "$@"
    fi
    fail "this machine allows no private namespaces ($reason). Run this as root; in a container," \
      'start the container with the SYS_ADMIN capability (docker run --privileged).'
  fi
fi

"${sandbox[@]}" "$@" "$scratch" &
pid=$!
wait "$pid"
