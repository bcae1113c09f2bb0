#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Fails where an include runs against the order of folders, or where senders could fill one bucket of a
hash table of the host; --table prints the includes between folders.
Usage: include_order_test.py PROJECT_ROOT [--table]"""

import collections
import graphlib
import pathlib
import re
import sys

# Lowest first. A file includes what stands lower, and what is in its own folder; a line's folders do
# not know each other.
LIBRARY = ["include/ipplayout", "platform", "driver protocol", "transmit", "devices payload", "control"]
HOST = ["include/ipplayout", "host/base", "host/cli", "host/measure/capture", "host/measure/figures", "host/stream",
        "host/library", "host/play host/measure/results", "host/measure", "host/demo", "host/lineup", "host/serve", "host"]
# Which folders may include a system header.
SYSTEM_HEADERS = [
    (r"pcap(\.h|/)", {"driver", "host/measure/capture", "host/serve"}),
    (r"(sys|net|netinet|netpacket|arpa|linux|libmnl)/|(pthread|netdb|ifaddrs)\.h",
     {"platform", "driver", "host/base", "host/measure/capture", "host/serve"}),
]
PUBLIC_SYSTEM_HEADERS = {"assert.h", "stddef.h", "stdint.h"}
# Flows, SSRCs and PIDs are chosen by whoever sends them.
KNOWN_HASH = re.compile(r"\bunordered_(?:map|set)<(?![^;]*\w*Hash>)[^;]*;")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)


def folder_of(path):
    return path.rpartition("/")[0]


def stem(path):
    return path.rsplit(".", 1)[0]


def may_include(folder, other):
    for order in (LIBRARY, HOST):
        ranks = {name: rank for rank, names in enumerate(order) for name in names.split()}
        if folder in ranks and other in ranks:
            return folder == other or ranks[other] < ranks[folder]
    return False


def system_header_is_allowed(folder, name):
    if folder == "include/ipplayout" and name not in PUBLIC_SYSTEM_HEADERS:
        return False
    return all(folder in allowed for pattern, allowed in SYSTEM_HEADERS if re.match(pattern, name))


def check(files):
    """`files`: path -> text. The includes of the project's own files as a graph
    of stems, and what is wrong."""
    edges, problems = {}, []
    for path, text in files.items():
        if path.startswith("host/"):
            problems += [f"{path}: {table} needs a hash with a key" for table in KNOWN_HASH.findall(text)]
        for bracket, name in INCLUDE.findall(text):
            target = name if name in files else f"include/{name}"
            if bracket == "<":
                if not system_header_is_allowed(folder_of(path), name):
                    problems.append(f"{path}: <{name}> does not belong into this folder")
            elif target not in files:
                problems.append(f'{path}: "{name}" is no path from the root')
            elif not may_include(folder_of(path), folder_of(target)):
                problems.append(f"{path}: {target} does not stand lower")
            elif stem(path) != stem(target):
                edges.setdefault(stem(path), set()).add(stem(target))
                if stem(path).endswith("_layer") and stem(target).endswith("_layer"):
                    problems.append(f"{path}: {target}, but no layer knows another")
    try:
        graphlib.TopologicalSorter(edges).prepare()
    except graphlib.CycleError as error:
        problems.append("circle: " + " -> ".join(error.args[1]))
    return edges, problems


def read(root):
    folders = {name for line in LIBRARY + HOST for name in line.split()}
    tops = {name.split("/")[0] for name in folders}
    return {path.relative_to(root).as_posix(): path.read_text(encoding="utf-8")
            for top in sorted(tops) for path in sorted((root / top).rglob("*"))
            if path.suffix in {".h", ".cpp", ".c"}}


def table(files, edges):
    """A row for each folder, lowest first: its files and lines, and what it includes of other folders. An
    include counts once for each pair of files, as in the number that the test prints."""
    order = list(dict.fromkeys(name for line in LIBRARY + HOST for name in line.split()))
    includes = collections.defaultdict(collections.Counter)
    for source, targets in edges.items():
        for target in targets:
            includes[folder_of(source)][folder_of(target)] += folder_of(source) != folder_of(target)
    print("| folder | files | lines | includes of lower folders | upward |\n|---|--:|--:|---|--:|")
    for folder in sorted({folder_of(path) for path in files}, key=order.index):
        texts = [text for path, text in files.items() if folder_of(path) == folder]
        others = sorted(+includes[folder], key=order.index)
        upward = sum(includes[folder][other] for other in others if not may_include(folder, other))
        print(f"| `{folder}/` | {len(texts)} | {sum(text.count(chr(10)) for text in texts):,} | "
              + ", ".join(f"`{other}` {includes[folder][other]}" for other in others) + f" | {upward} |")


DAMAGED = {  # each line is one problem that the check must find
    "platform/a.h": '#include "driver/a.h"',
    "driver/a.h": '#include "protocol/a.h"',
    "protocol/a.h": "#include <sys/socket.h>",
    "protocol/b_layer.h": '#include "protocol/c_layer.h"',
    "protocol/c_layer.h": '  # include "c_layer.h"',
    "transmit/a.h": '#include "transmit/b.h"',
    "transmit/b.h": '#include "transmit/a.h"',  # with the line above: one circle
    "payload/a.h": '#include "control/a.h"',
    "control/a.h": "#include <pcap/pcap.h>",
    "include/ipplayout/a.h": "#include <vector>",
    "host/main.cpp": '#include "driver/a.h"',
    "host/base/a.h": '#include "host/play/a.h"',
    "host/play/a.h": '#include "host/measure/results/a.h"',
    "host/measure/figures/b.h": "std::unordered_map<std::uint32_t, Group> groups_;",
    "host/measure/figures/c.h": "std::unordered_map<FlowKey, Flow, FlowKeyHash> flows_;",  # allowed
    "host/measure/capture/a.h": '#include <pcap/pcap.h>\n#include "host/base/a.h"',  # allowed
}


def main():
    found = check(DAMAGED)[1]
    assert len(found) == len(DAMAGED) - 3, found
    files = read(pathlib.Path(sys.argv[1]))
    edges, problems = check(files)
    if "--table" in sys.argv:
        table(files, edges)
    print(*problems, sep="\n")
    print(f"{len(files)} files, {sum(map(len, edges.values()))} includes of each other, "
          f"{len(problems)} problems")
    return 1 if problems or not edges else 0


if __name__ == "__main__":
    sys.exit(main())
