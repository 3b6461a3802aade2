# shellcheck shell=bash
# Functions for the other scripts. This file is sourced, not run. The caller has set -euo pipefail
# and `root`, the top of the source tree.
#
# need NAME PACKAGE...     notes the Debian packages if NAME, a command or a file, doesn't exist
# install_needed           installs the noted packages, by sudo unless run by root. Without sudo it
#                          prints the command for an administrator and ends the script with status 2
# need_build_tools, need_test_tools, need_mpi, need_openmpi, need_mpich
#                          note what every build, the tests, and recorded programs need
# build PRESET [OPTION...] configures the preset with the options and builds it
#
# Output of installations goes to the file `log`, build/setup.log unless the caller has set it.

mkdir -p "${root:?}/build"
log=${log:-$root/build/setup.log}

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
  # Manual pages, completion, and the script of the page that klt-timeline makes.
  need groff groff
  need zsh zsh
  need fish fish
  need node nodejs
  # The test of pages is skipped without a browser, which is large. Machines that have none install
  # it only on request.
  if [ "${KLT_BROWSER_TEST:-OFF}" = ON ]; then need chromium chromium; fi
}

# Whether this user can install packages: root, or a user of sudo who can be asked for a password.
can_install() {
  command -v apt-get >/dev/null 2>&1 || return 1
  [ "$(id -u)" -eq 0 ] && return
  command -v sudo >/dev/null 2>&1 && { [ -t 0 ] || sudo -n true 2>/dev/null; }
}

# Ends the script with status 2 and the command that an administrator has to run.
refuse_install() {
  if command -v apt-get >/dev/null 2>&1; then
    echo "Packages are missing, and this user can't install them. As an administrator, run:"
    echo "  apt-get install -y ${needed_packages[*]}"
  else
    echo "Please install the equivalent of these Debian packages: ${needed_packages[*]}"
  fi >&2
  exit 2
}

# Notes the packages with which programs are recorded: MPI libraries, compilers and launchers.
need_mpi() {
  [ "${KLT_MPI:-ON}" != OFF ] || return 0
  need_openmpi
  need_mpich
  need gfortran gfortran
}

# The headers are in another place on each architecture, so this looks for their packages.
need_openmpi() {
  need mpirun.openmpi openmpi-bin
  need /usr/share/doc/libopenmpi-dev libopenmpi-dev
}
need_mpich() {
  need mpirun.mpich mpich
  need /usr/share/doc/libmpich-dev libmpich-dev
}

install_needed() {
  [ "${#needed_packages[@]}" -gt 0 ] || return 0
  can_install || refuse_install
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  echo "Installing ${needed_packages[*]} ..."
  local install=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -qq
    --no-install-recommends -y "${needed_packages[@]}")
  # The package lists may be missing or outdated: if the packages aren't found, update them once.
  if ! logged "${install[@]}" &&
    ! { logged "${as_root[@]}" apt-get update -qq && logged "${install[@]}"; }; then
    echo "Packages can't be installed; the last lines of $log:" >&2
    tail -n 20 "$log" >&2
    refuse_install
  fi
  needed_packages=()
}

# Runs a command that needs no input, with its output in the file `log`.
logged() { "$@" </dev/null >>"$log" 2>&1; }

build() {
  local preset=$1
  shift
  # Chained with &&, because `set -e` has no effect if the function is called in a condition.
  cd "${root:?}" &&
    cmake --preset "$preset" "$@" &&
    cmake --build --preset "$preset" --parallel "$(nproc)"
}
