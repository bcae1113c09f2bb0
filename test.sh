#!/bin/bash
# Builds the project and runs all of its tests, then those that matter under both sanitizers.
# Does all its set-up itself on Debian 12, as root.
set -euo pipefail
cd "$(dirname "$0")"
. tools/setup.sh

need_root
need_packages "${build_packages[@]}" "${wire_packages[@]}" "${test_packages[@]}"
need_namespaces

run_tests() {
  local preset=$1
  shift
  echo "Testing build/$preset"
  # The thread sanitizer of Debian 12 cannot place its memory where the kernel randomises it widely.
  setarch "$(uname -m)" --addr-no-randomize \
    ctest --parallel 2 --test-dir "build/$preset" --no-tests=error --output-on-failure --progress "$@"
}

build release
run_tests release
# Under the sanitizers the library: its unit tests, and frames and lifecycle on the wire.
for sanitizer in asan tsan; do
  build "$sanitizer" ipplayout unit_tests
  run_tests "$sanitizer" -E "^host|^measure|example|installed_package"
done
# Any calls in any order; hostile frames for the measuring end, command lines and streams for the
# player: a few seconds of each.
build fuzz decoder_fuzzer frames_fuzzer interface_fuzzer options_fuzzer stream_fuzzer
run_tests fuzz -L fuzz
