# shellcheck shell=bash
# What the scripts share; sourced, not run.

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# The packages that each purpose needs beyond a minimal Debian or Ubuntu system.
# shellcheck disable=SC2034  # read by the scripts that source this file
{
  build_packages=(g++ cmake ninja-build libcurl4-openssl-dev libpugixml-dev libcli11-dev
    nlohmann-json3-dev libarchive-dev libssl-dev libelf-dev zlib1g-dev)
  demo_packages=(nginx tar mount util-linux)
  test_packages=(libgtest-dev python3 python3-pytest nginx strace tar mount util-linux)
  coverage_packages=(gcovr)
  fuzz_packages=(clang 'libclang-rt-dev?' libgtest-dev)  # elsewhere clang brings its run-time
  bench_packages=(libbenchmark-dev nginx curl openssl xmlstarlet tar time python3 python3-matplotlib
    python3-pytest mount util-linux)
  lint_packages=(clang-format-14 clang-tidy-14 cppcheck shellcheck)
}

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

# Runs a command and shows what it printed only when it fails.
quietly() {
  local output
  if ! output=$("$@" 2>&1 </dev/null); then
    printf '%s\n' "$output" >&2
    fail "this command failed: $*"
  fi
}

install_packages() {
  "$project/scripts/install-packages.sh" "$@"
}
