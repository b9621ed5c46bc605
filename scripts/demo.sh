#!/usr/bin/env bash
# Shows every kind of update with the real program and a real web server.
#
# Usage: demo.sh [--keep]
#
# Installs the packages it needs, builds the updater and plays the scenes of scripts/demo/scenes.sh
# in a sandbox: the machine's install directory, logs, processes and nginx are not touched. With
# --keep it ends in a shell in the sandbox, to look around; leaving the shell removes everything.
# The exit status is 0 if all scenes ended as expected.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$project"

if (($# > 1)) || [[ ${1-} != @(|--keep) ]]; then
  fail 'usage: demo.sh [--keep]'
fi
if [[ ${1-} == --keep && ! (-t 0 && -t 1) ]]; then
  fail '--keep needs a terminal'
fi

scripts/sandbox.sh true
prepare "${build_packages[@]}" "${demo_packages[@]}"
heading 'building build/release/norvak_update'
configure release
quietly cmake --build --preset release --target norvak_update norvak_host norvak_publish
exec scripts/sandbox.sh scripts/demo/scenes.sh "$@" "$project/build/release"
