# shellcheck shell=bash
# Functions for the other scripts. This file is sourced, not run. The caller has set -euo pipefail
# and `root`, the top of the source tree.
#
# need NAME PACKAGE...     notes the Debian packages if NAME, a command or a file, doesn't exist
# install_needed           installs the noted packages; uses sudo unless run by root
# build PRESET [OPTION...] configures the preset with the options and builds it

needed_packages=()

need() {
  local name=$1
  shift
  case $name in
    /*) [ -e "$name" ] || needed_packages+=("$@") ;;
    *) command -v "$name" >/dev/null 2>&1 || needed_packages+=("$@") ;;
  esac
}

# Notes the packages that every build needs.
need_build_tools() {
  need git git
  need cmake cmake
  need ninja ninja-build
  need g++ g++
  need /usr/include/zlib.h zlib1g-dev
}

need_test_tools() {
  need python3 python3
  need /usr/include/gtest/gtest.h libgtest-dev
  # The tests of bounds measure peak memory, and the tests of packages build packages.
  need /usr/bin/time time
  need file file
  need dpkg-shlibdeps dpkg-dev
}

install_needed() {
  [ "${#needed_packages[@]}" -gt 0 ] || return 0
  if ! command -v apt-get >/dev/null 2>&1; then
    echo "Please install the equivalent of these Debian packages: ${needed_packages[*]}" >&2
    return 1
  fi
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    as_root=(sudo)
    echo "Installing with sudo: ${needed_packages[*]}"
  else
    echo "Installing: ${needed_packages[*]}"
  fi
  local install=(env DEBIAN_FRONTEND=noninteractive apt-get install -qq --no-install-recommends)
  install+=(-y "${needed_packages[@]}")
  # The package lists may be missing or outdated: update them once and try again.
  if ! "${as_root[@]}" "${install[@]}" </dev/null; then
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" "${install[@]}" </dev/null
  fi
  needed_packages=()
}

build() {
  local preset=$1
  shift
  # Chained with &&, because `set -e` has no effect if the function is called in a condition.
  cd "${root:?}" &&
    cmake --preset "$preset" "$@" &&
    cmake --build --preset "$preset" --parallel "$(nproc)"
}
