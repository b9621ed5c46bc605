#!/usr/bin/env bash
# Runs a command that may mount anything and signal only what it started itself.
#
# Usage: sandbox.sh COMMAND...
#
# The path of an empty scratch folder is appended to COMMAND. The command has root's rights in
# private mount and process namespaces, with its own /proc where that is allowed. This needs root,
# unprivileged user namespaces or sudo. When the command ends or the sandbox is interrupted, all its
# processes are killed and the scratch folder is removed.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# If unshare dies, so does the first process of the namespaces, and with it all the others.
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
  # The last processes may take a moment to end.
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
    if ((EUID != 0)) && sudo_works; then
      rmdir "$scratch"
      exec sudo -- "$0" "$@"
    fi
    fail "this machine allows no private namespaces ($reason). Run this as root; in a container," \
      'start the container with the SYS_ADMIN capability (docker run --privileged).'
  fi
fi

# The machine's /proc shows other process ids than those in the sandbox. A container may forbid
# mounting another one; only tools that inspect processes need it. Standard input is given
# explicitly because bash would replace it with /dev/null for a background command.
# shellcheck disable=SC2016  # the inner shell expands these
"${sandbox[@]}" sh -c 'mount -t proc proc /proc 2>/dev/null; exec "$@"' sh "$@" "$scratch" <&0 &
pid=$!
wait "$pid"
