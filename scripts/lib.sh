# shellcheck shell=bash
# Functions shared by the scripts; to be sourced.

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# The packages that each purpose needs beyond a minimal Debian or Ubuntu system.
# shellcheck disable=SC2034  # read by the scripts that source this file
{
  build_packages=(g++ cmake ninja-build libcurl4-openssl-dev libpugixml-dev libcli11-dev
    nlohmann-json3-dev libarchive-dev libssl-dev libelf-dev zlib1g-dev)
  demo_packages=(nginx tar mount util-linux bsdutils)
  test_packages=(acl libgtest-dev python3 python3-jsonschema python3-pytest nginx strace tar mount
    util-linux man-db mandoc busybox zsh)
  booted_test_packages=(debootstrap systemd-container dpkg-dev python3-pytest python3-pytest-xdist
    nginx logrotate mount util-linux)
  package_test_packages=(debootstrap g++ lintian rpm rpmlint dpkg-dev python3-pytest nginx mount
    util-linux)
  # Ubuntu has them as snaps only; tests that need a browser are skipped there.
  browser_packages=('chromium?' 'chromium-driver?' 'python3-selenium?')
  coverage_packages=(gcovr)
  fuzz_packages=(clang 'libclang-rt-dev?' libgtest-dev)  # other releases have it in clang
  bench_packages=(libbenchmark-dev nginx curl openssl xmlstarlet tar time python3 python3-matplotlib
    python3-pytest mount util-linux)
  lint_packages=(clang-format-14 clang-tidy-14 cppcheck shellcheck prometheus)  # for promtool
}

oldest_cmake=3.21  # the first that reads the presets
oldest_releases='Debian 12 and Ubuntu 22.04'

if [[ -t 1 ]]; then
  bold=$'\e[1m' plain=$'\e[0m'
else
  bold='' plain=''
fi

heading() {
  printf '\n%s== %s ==%s\n' "$bold" "$*" "$plain"
}

fail() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# Copies its input. On a terminal it also shows the latest line until the next one arrives.
show_progress() {
  local line
  while IFS= read -r line; do
    printf '%s\n' "$line"
    if [[ -t 2 ]]; then
      printf '\r\e[K%.79s' "$line" >&2
    fi
  done
  if [[ -t 2 ]]; then
    printf '\r\e[K' >&2
  fi
}

# Runs a command and prints its output only if it fails.
quietly() {
  local output
  if ! output=$("$@" 2>&1 </dev/null | show_progress); then
    printf '%s\n' "$output" >&2
    fail "this command failed: $*"
  fi
}

# Whether sudo needs no password or has a terminal to ask for it.
sudo_works() {
  command -v sudo >/dev/null && { sudo -n true || : </dev/tty; } 2>/dev/null
}

# $@: packages. Checks what no package can provide, then installs what is missing.
prepare() {
  check_machine
  check_cmake
  install_packages "$@"
  check_cmake
}

install_packages() {
  "$project/scripts/install-packages.sh" "$@"
}

check_machine() {
  local probe
  if [[ ! -e /proc/self/exe ]]; then
    fail "/proc is not mounted: run 'mount -t proc proc /proc' as root."
  fi
  if ! mkdir -p "$project/build" 2>/dev/null || [[ ! -w $project/build ]]; then
    fail "$project/build is not writable. Make the checkout writable; if a run with sudo created" \
      "the folder, remove it: sudo rm -rf $project/build"
  fi
  probe=$(mktemp) || fail "no temporary file can be created: check ${TMPDIR:-/tmp}, or set TMPDIR."
  printf '#!/bin/sh\n' >"$probe"
  chmod +x "$probe"
  if ! "$probe" 2>/dev/null; then
    rm "$probe"
    fail "programs cannot be run in ${TMPDIR:-/tmp}, which is probably mounted noexec: set TMPDIR."
  fi
  rm "$probe"
}

# Checks the installed CMake or, before it is installed, the one that apt would install.
check_cmake() {
  local version=
  if command -v cmake >/dev/null; then
    version=$(cmake --version | sed -n '1s/.* //p')
  elif command -v apt-cache >/dev/null; then
    version=$(apt-cache policy cmake | sed -n 's/^ *Candidate: \([0-9].*\)/\1/p')
  fi
  if [[ -n $version ]] && ! printf '%s\n' "$oldest_cmake" "$version" | sort -V -C; then
    fail "CMake $version is too old: these scripts need $oldest_cmake. The oldest supported releases" \
      "are $oldest_releases."
  fi
}

# Configures a preset.
# $1: preset
configure() {
  local folder=build/$1 source output
  source=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$folder/CMakeCache.txt" 2>/dev/null) || true
  if [[ -n $(find "$folder" ! -type l ! -writable -print -quit 2>/dev/null) ]]; then
    fail "$project/$folder has files of another user, probably because of a run with sudo. Remove" \
      "it: sudo rm -rf $project/$folder"
  fi
  if [[ -n $source && ! $source -ef $project ]]; then
    printf 'This checkout was moved or copied: building %s from scratch.\n' "$folder"
    rm -rf "$folder"
  fi
  if ! output=$(cmake --preset "$1" 2>&1 </dev/null | show_progress); then
    # The cache would keep what was not found, for every later run.
    rm -rf "$folder/CMakeCache.txt" "$folder/CMakeFiles"
    printf '%s\n' "$output" >&2
    fail "the preset $1 could not be configured."
  fi
}

# The time that packages carry: SOURCE_DATE_EPOCH, or that of the last commit; seconds since 1970.
source_date() {
  printf '%s\n' "${SOURCE_DATE_EPOCH:-$(git -C "$project" log -1 --format=%ct)}"
}
