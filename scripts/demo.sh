#!/usr/bin/env bash
# Shows every kind of update with the real program against a real web server.
#
# Usage: demo.sh
#
# Installs the packages it needs, builds the release preset and plays the scenes of
# scripts/demo/scenes.sh in a sandbox: the machine's install directory, logs, processes and nginx are
# not touched. The exit status is 0 when all went as announced.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

install_packages "${build_packages[@]}" "${demo_packages[@]}"
heading 'building build/release/norvak_update'
quietly cmake --preset release
quietly cmake --build --preset release --target norvak_update
exec scripts/sandbox.sh scripts/demo/scenes.sh "$project/build/release/norvak_update"
