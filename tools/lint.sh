#!/bin/bash
# SPDX-License-Identifier: MIT
# Looks for faults in all of our C++ and C without running it.
#
# usage: tools/lint.sh [cppcheck | clang-tidy [FILE...]]   without an argument: both, over everything
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/setup.sh

# Without git, which a machine need not have, nor a release's folder a repository.
sources() {
  find . -path './build*' -prune -o \( -name '*.cpp' -o -name '*.c' \) "$@" -print | sort
}

run_cppcheck() {
  echo "cppcheck"
  sources |
    xargs cppcheck -j 2 --quiet --error-exitcode=1 --std=c++20 --library=googletest --inline-suppr \
      --enable=warning,performance,portability -I . -I include
}

# The checks and why some are off: .clang-tidy.
run_clang_tidy() {
  [ $# -gt 0 ] || set -- $(sources -name '*.cpp' ! -path './tests/consumer/*' ! -path './tests/fuzz/*')
  echo "clang-tidy, $# files"
  # Compiled by clang 14: what it parses best.
  cmake --preset clang -DIPPLAYOUT_BUILD_BENCH=ON >build/lint.log || stop "could not configure (build/lint.log)"
  printf '%s\0' "$@" | xargs -0 -n 1 -P 2 clang-tidy --quiet -p build/clang 2>/dev/null
}

need_packages "${build_packages[@]}" "${lint_packages[@]}"
mkdir -p build
case "${1:-}" in
  cppcheck) run_cppcheck ;;
  clang-tidy) shift; run_clang_tidy "$@" ;;
  "") run_cppcheck; run_clang_tidy ;;
  *) stop "unknown: $1; cppcheck or clang-tidy are allowed" ;;
esac
