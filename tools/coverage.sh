#!/bin/bash
# SPDX-License-Identifier: MIT
# Test coverage by line and branch: build/coverage/coverage.txt, and coverage.html beside it.
# Branches that only exceptions take are not counted.
#
# usage: tools/coverage.sh [CTEST OPTION...]
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/setup.sh

need_root
need_packages "${build_packages[@]}" "${wire_packages[@]}" "${test_packages[@]}" "${coverage_packages[@]}"
need_namespaces
build coverage
find build/coverage -name '*.gcda' -delete
ctest --parallel 2 --test-dir build/coverage --no-tests=error --output-on-failure --progress "$@"

# The tests' own objects do not count.
gcovr --root . --filter '(control|driver|payload|platform|protocol|transmit|host)/' \
  --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors \
  --txt build/coverage/coverage.txt --json-summary build/coverage/coverage.json \
  --html-details build/coverage/coverage.html \
  build/coverage/CMakeFiles/ipplayout_objects.dir build/coverage/host

# A line for each folder, with the sums of its files.
python3 - build/coverage/coverage.json <<'END'
import collections, json, sys
folders = collections.defaultdict(lambda: [0, 0, 0, 0])
for file in json.load(open(sys.argv[1]))["files"]:
    for name in (file["filename"].rsplit("/", 1)[0], "all"):
        for at, key in enumerate(("line_covered", "line_total", "branch_covered", "branch_total")):
            folders[name][at] += file[key]
for name, (lines, all_lines, branches, all_branches) in sorted(folders.items()):
    print(f"{name:14} lines {lines / all_lines:6.1%} of {all_lines:5}   "
          f"branches {branches / max(all_branches, 1):6.1%} of {all_branches:5}")
END
