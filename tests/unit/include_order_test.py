#!/usr/bin/env python3
"""Fails on every include that runs against the order of the source files, on system headers outside
the folders that may use them, and on circles. Usage: include_order_test.py PROJECT_ROOT"""

import pathlib
import re
import sys
import tempfile

# Lowest first. A file includes what stands lower, files of its own rank in its own folder, and its
# own header. A name without a slash at its end stands for NAME.h and NAME.cpp.
ORDER = [
    ["include/"],
    ["platform/"],
    ["driver/",
     "payload/error_manager_base", "payload/payload_source", "payload/rtp_clock",
     "payload/sw_clock", "payload/timestamp",
     "protocol/big_endian", "protocol/internet_checksum", "protocol/packet",
     "protocol/parametric_manager", "protocol/pdu",
     "transmit/batch_pacer", "transmit/osa_thread", "transmit/trace_log",
     "control/settings_store"],
    ["payload/data_buffer", "payload/error_insertion_manager", "payload/error_schedule",
     "protocol/replication_manager", "transmit/batch_hand_over", "transmit/device_identifier",
     "transmit/frame_stamper", "transmit/neighbour_solicitation"],
    ["protocol/sender", "protocol/layer", "protocol/rtp_layer", "protocol/udp_layer"],
    ["protocol/ipv4_layer", "protocol/ipv6_layer", "protocol/vlan_layer",
     "protocol/ethernet_layer", "transmit/ethernet_interface", "transmit/pcap_rt_interface"],
    ["payload/data_pump", "transmit/device_array", "transmit/device_enumerator",
     "transmit/device_list", "transmit/packet_transmitter", "transmit/pcap_device_identifier"],
    ["transmit/address_resolution", "control/datagram_layout", "control/library",
     "control/library_parts", "control/pipeline", "control/playout"],
    ["control/address_functions", "control/derived_values", "control/device_functions",
     "control/lifecycle_functions", "control/settings_accessors", "control/settings_records",
     "control/statistics_functions"],
    ["host/"],
]
FOLDERS = ["include", "platform", "driver", "protocol", "payload", "transmit", "control", "host"]

SYSTEM_HEADERS = [  # pattern, folders that may include it
    (r"pcap(\.h|/)", {"driver", "host"}),
    (r"(sys|net|netinet|netpacket|arpa|linux|libmnl)/|(pthread|netdb|ifaddrs)\.h",
     {"platform", "driver", "host"}),
]
PUBLIC_SYSTEM_HEADERS = {"assert.h", "stddef.h", "stdint.h"}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)


def stem(path):
    return path.rsplit(".", 1)[0]


def rank(path):
    for position, names in enumerate(ORDER):
        if stem(path) in names or any(n.endswith("/") and path.startswith(n) for n in names):
            return position
    return None


def read_includes(root):
    """Path of each source file -> list of (is a system header, name as written)."""
    files = {}
    for folder in FOLDERS:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix in {".h", ".cpp", ".c"}:
                text = path.read_text(encoding="utf-8")
                files[path.relative_to(root).as_posix()] = [
                    (bracket == "<", name) for bracket, name in INCLUDE.findall(text)]
    return files


def check_system_header(path, name):
    folder = path.split("/")[0]
    if folder == "include" and name not in PUBLIC_SYSTEM_HEADERS:
        return f"{path}: <{name}> in the public header"
    for pattern, allowed in SYSTEM_HEADERS:
        if re.match(pattern, name) and folder not in allowed:
            return f"{path}: <{name}> outside {', '.join(sorted(allowed))}"
    return None


def check_own_header(path, target):
    """None, or why `path` must not include the project's file `target`."""
    if stem(path) == stem(target):
        return None
    folder, other = path.split("/")[0], target.split("/")[0]
    if folder == "host" and other not in {"host", "include"}:
        return f"{path}: {target}, but a host sees the public header only"
    if other == "control" and folder != "control":
        return f"{path}: {target}, but only control/ includes control/"
    if stem(path).endswith("_layer") and stem(target).endswith("_layer"):
        return f"{path}: {target}, but no layer knows another"
    own, its = rank(path), rank(target)
    if own is None or its is None:
        return None  # reported once, as a file without a place
    if its < own or (its == own and folder == other):
        return None
    return f"{path}: {target} stands {'higher' if its > own else 'beside it'}"


def find_circle(edges):
    """A list of files that include each other in a ring, or None."""
    done, trail = set(), []

    def visit(path):
        if path in trail:
            return trail[trail.index(path):] + [path]
        if path in done:
            return None
        trail.append(path)
        circle = next(filter(None, map(visit, edges[path])), None)
        trail.pop()
        done.add(path)
        return circle

    return next(filter(None, map(visit, edges)), None)


def check(root):
    files = read_includes(root)
    problems = [f"{path}: has no place in the order" for path in files if rank(path) is None]
    edges = {path: [] for path in files}
    for path, includes in files.items():
        for is_system, name in includes:
            if is_system:
                problem = check_system_header(path, name)
            else:
                target = next((t for t in (name, f"include/{name}") if t in files), None)
                if target is None:
                    problem = f'{path}: "{name}" is no path from the root'
                else:
                    edges[path].append(target)
                    problem = check_own_header(path, target)
            if problem:
                problems.append(problem)
    circle = find_circle(edges)
    if circle:
        problems.append("circle: " + " -> ".join(circle))
    return len(files), sum(map(len, edges.values())), problems


# What the check itself must find: the include in each file, and how the report names it.
DAMAGED = [
    ("platform/clock.h", '#include "driver/send_queue.h"', "stands higher"),
    ("driver/send_queue.h", '#include "protocol/pdu.h"', "stands beside it"),
    ("protocol/pdu.h", "#include <sys/socket.h>", "<sys/socket.h> outside"),
    ("protocol/packet.h", "  # include <pcap/pcap.h>", "<pcap/pcap.h> outside"),
    ("protocol/rtp_layer.h", '#include "protocol/udp_layer.h"', "no layer knows another"),
    ("protocol/udp_layer.h", '#include "protocol/rtp_layer.h"', "circle: "),
    ("transmit/osa_thread.h", '#include "control/settings_store.h"', "only control/"),
    ("transmit/trace_log.h", '#include "trace.h"', "no path from the root"),
    ("control/settings_store.h", '#include "ipplayout/ipplayout.h"', None),
    ("payload/unheard_of.h", "", "has no place"),
    ("host/main.cpp", '#include "driver/send_queue.h"', "public header only"),
    ("include/ipplayout/ipplayout.h", "#include <vector>", "<vector> in the public header"),
]


def check_the_check():
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder)
        for path, line, _ in DAMAGED:
            (root / path).parent.mkdir(parents=True, exist_ok=True)
            (root / path).write_text(line + "\n", encoding="utf-8")
        problems = check(root)[2]
    for path, _, report in DAMAGED:
        if report == "circle: ":
            assert any(p.startswith(report) and path in p for p in problems), (path, problems)
        elif report:
            assert any(p.startswith(path) and report in p for p in problems), (path, problems)
        else:
            assert not any(p.startswith(path) for p in problems), (path, problems)


def main():
    check_the_check()
    files, includes, problems = check(pathlib.Path(sys.argv[1]))
    for problem in problems:
        print(problem)
    print(f"{files} files, {includes} includes of each other, {len(problems)} against the order")
    return 1 if problems or files == 0 or includes == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
