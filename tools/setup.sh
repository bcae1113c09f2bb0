# SPDX-License-Identifier: MIT
# shellcheck shell=bash disable=SC2034  # the lists are for those who source this
# Sourced by demo.sh and test.sh: the packages that they need, and how they build.

# To configure a preset and build all of it.
build_packages=(g++ cmake ninja-build pkgconf libpcap-dev libmnl-dev libcap-dev libseccomp-dev libbitstream-dev libcli11-dev libfmt-dev
  nlohmann-json3-dev libtomlplusplus-dev libboost-dev prometheus-cpp-dev libjs-dygraphs libgtest-dev libgmock-dev libbenchmark-dev python3)
# For the far side of the wire: namespaces, capture, dissector, decoders.
wire_packages=(iproute2 tshark ffmpeg gstreamer1.0-tools gstreamer1.0-plugins-good)
# For the tests of ipplay besides: its documents, its packages, rights for a single program,
# the fuzzer, and the checkers of models and of code.
test_packages=(groff-base dpkg-dev file libcap2-bin patchelf clang libclang-rt-14-dev spin cppcheck clang-format flake8 shellcheck)
# For the tests of the Python package, its examples and its notebook.
test_packages+=(mypy python3-pytest python3-pip python3-venv python3-setuptools python3-wheel python3-nbconvert python3-ipykernel
  python3-matplotlib)
# For tests/fleet and bench/fleet: the scheduler whose nodes play a lineup.
fleet_packages=(slurm-wlm munge iproute2)
# For those of `ipplay serve`: what asks for its metrics, a browser, and what drives that.
test_packages+=(prometheus chromium chromium-driver python3-selenium)
# For tools/lint.sh and tools/coverage.sh besides.
lint_packages=(cppcheck clang-format clang clang-tidy flake8 mypy python3-pytest shellcheck)
coverage_packages=(gcovr)

stop() {
  echo "$(basename "$0"): $*" >&2
  exit 1
}

need_root() {
  [ "$(id -u)" = 0 ] || stop "needs root, for packages and network namespaces: run it with sudo"
}

need_namespaces() {
  unshare --net true 2>/dev/null ||
    stop "may not make network namespaces here: run it on a machine, or in a container with --privileged"
}

# Installs those of the named packages that are missing.
need_packages() {
  if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    stop "sets up Debian 12 and finds no apt-get here; install by other means: $*"
  fi
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "Installing Debian packages: ${missing[*]}"
  local log
  log=$(mktemp)
  export DEBIAN_FRONTEND=noninteractive
  { apt-get -q update && apt-get -qy install --no-install-recommends "${missing[@]}"; } >"$log" 2>&1 || {
    tail -n 20 "$log" >&2
    rm -f "$log"
    stop "could not install: ${missing[*]} (the end of apt-get's output is above)"
  }
  rm -f "$log"
}

# build PRESET [TARGET...]: configures and builds; shows the tools' output if they fail.
build() {
  local preset=$1 log
  shift
  echo "Building build/$preset"
  mkdir -p "build/$preset"
  log=build/$preset/setup.log
  { cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}; } >"$log" 2>&1 || {
    tail -n 40 "$log" >&2
    stop "could not build (the whole output is in $log)"
  }
}
