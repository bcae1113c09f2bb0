#!/bin/bash
# SPDX-License-Identifier: MIT
# Static analysis and style checks of all our code.
#
# usage: tools/lint.sh [format | python | shell | cppcheck | clang-tidy [FILE...]]
# without an argument: all of it, over everything
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/setup.sh

# Does not use git: the machine may not have it, and a release's folder is no repository.
sources() {
  find . -path './build*' -prune -o \( -name '*.cpp' -o -name '*.c' \) "$@" -print | sort
}

run_format() {
  echo "clang-format"
  find . -path './build*' -prune -o \( -name '*.cpp' -o -name '*.c' -o -name '*.h' \) -print0 |
    xargs -0 clang-format --dry-run -Werror
}

run_flake8() {
  echo "flake8"
  flake8 .
  echo "mypy"
  (cd python && MYPYPATH=src /usr/bin/python3 -m mypy --cache-dir /dev/null src ../examples/python)
}

run_shellcheck() {
  echo "shellcheck"
  { find . -path './build*' -prune -o -name '*.sh' -print0; printf '%s\0' .ci/run examples/fleet/lineup.sbatch packaging/postinst packaging/python/postinst packaging/python/prerm; } |
    xargs -0 shellcheck --external-sources
}

run_cppcheck() {
  echo "cppcheck"
  sources |
    xargs cppcheck -j 2 --quiet --error-exitcode=1 --std=c++20 --library=googletest --inline-suppr \
      --enable=warning,performance,portability -I . -I include
}

# The checks and why some are off: .clang-tidy.
run_clang_tidy() {
  local files=("$@")
  [ $# -gt 0 ] ||
    mapfile -t files < <(sources -name '*.cpp' ! -path './tests/consumer/*' ! -path './tests/fuzz/*')
  echo "clang-tidy, ${#files[@]} files"
  # Compiled by clang 14: what it parses best.
  cmake --preset clang -DIPPLAYOUT_BUILD_BENCH=ON >build/lint.log || stop "could not configure (build/lint.log)"
  printf '%s\0' "${files[@]}" | xargs -0 -n 1 -P 2 clang-tidy --quiet -p build/clang 2>/dev/null
}

need_packages "${build_packages[@]}" "${lint_packages[@]}"
mkdir -p build
case "${1:-}" in
  format) run_format ;;
  python) run_flake8 ;;
  shell) run_shellcheck ;;
  cppcheck) run_cppcheck ;;
  clang-tidy) shift; run_clang_tidy "$@" ;;
  "") run_format; run_flake8; run_shellcheck; run_cppcheck; run_clang_tidy ;;
  *) stop "unknown: $1; give format, python, shell, cppcheck or clang-tidy" ;;
esac
