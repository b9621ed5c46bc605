#!/usr/bin/env bash
# Shows every kind of update with the real program against a real web server.
#
# Usage: demo.sh
#
# Installs the packages it needs, builds the release preset and runs scripts/demo/scenes.sh in a
# private mount namespace, where a folder of its own stands at /var/log. The machine's install
# directory, logs and nginx are not touched. The exit status is 0 when all went as announced.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

# Prints nothing; sets `namespace` to the command prefix that gives a private mount namespace here.
find_namespace() {
  local ways=('unshare --mount' 'unshare --user --map-root-user --mount') way
  if ((EUID != 0)) && command -v sudo >/dev/null; then
    ways+=('sudo -- unshare --mount')
  fi
  for way in "${ways[@]}"; do
    read -ra namespace <<<"$way"
    if "${namespace[@]}" mount --bind /var/log /var/log 2>/dev/null; then
      return
    fi
  done
  fail "this machine allows no private mount namespace. Run the demo as root; in a container," \
    "start the container with the SYS_ADMIN capability (docker run --privileged)."
}

install_packages "${build_packages[@]}" "${demo_packages[@]}"
find_namespace
heading "building build/release/norvak_update"
quietly cmake --preset release
quietly cmake --build --preset release --target norvak_update
exec "${namespace[@]}" "$project/scripts/demo/scenes.sh" "$project/build/release/norvak_update"
