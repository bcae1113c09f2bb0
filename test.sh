#!/bin/bash
# SPDX-License-Identifier: MIT
# Looks the code over, builds it and runs all of its tests, under the sanitizers too.
# Does all its set-up itself on Debian 12, as root.
set -euo pipefail
cd "$(dirname "$0")"
. tools/setup.sh

need_root
need_packages "${build_packages[@]}" "${wire_packages[@]}" "${test_packages[@]}" "${fleet_packages[@]}"
need_namespaces

run_tests() {
  local preset=$1
  shift
  echo "Testing build/$preset"
  # The thread sanitizer of Debian 12 cannot place its memory where the kernel randomises it widely.
  setarch "$(uname -m)" --addr-no-randomize \
    ctest --parallel 2 --test-dir "build/$preset" --no-tests=error --output-on-failure --progress "$@"
}

for part in format python shell cppcheck; do
  tools/lint.sh "$part"
done
build release
run_tests release
# Under the sanitizers, but for faults that are injected into malloc, packages, and rights. Whole programs run under
# the first one only, which halves the time of both.
build asan
run_tests asan
build tsan
run_tests tsan -E '^(host|python|reliability)\.'
# Any calls in any order; hostile frames for the measuring end, command lines and streams for the
# player: a few seconds of each.
build fuzz {capture,decoder,frames,interface,measure,options,playouts,request,stream}_fuzzer
run_tests fuzz -L fuzz
