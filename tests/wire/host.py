# SPDX-License-Identifier: MIT
"""What the hosts of the tests do besides playing: threads of their own, settings, a look at the process."""
import os
import socket
import threading
import time

from library import Library
from testbed import Testbed
from wire_case import TYPICAL

CRAWL = {**TYPICAL, "IPBitRate": 0.1}  # 100 kbit/s: the ring fills and stays full
RING = 64 << 20
AF_XDP = 44


def ready(library, settings=TYPICAL):
    library.initialise(Testbed.NEAR)
    library.configure(settings)


def begin(library, data=b"", through_xdp=False):
    assert library.IPStart() == 0
    while through_xdp and AF_XDP not in families():
        # The kernel takes the adapter's queue back in its own time from the playout that had it before.
        library.IPStop()
        assert library.IPStart() == 0
    assert library.write(data) == 0


def reap(library, stop="IPStop"):
    """Ends the playout; its statistics."""
    getattr(library, stop)()
    return library.statistics()


def until_sent(library, count):
    while library.statistics()["DatagramsSent"] < count:
        pass


def in_thread(function, *arguments):
    """Runs function in a thread; joining the thread gives its result."""
    result = []
    thread = threading.Thread(target=lambda: result.append(function(*arguments)))
    thread.start()

    def join():
        thread.join()
        return result[0]
    return join


def until_refused(library, written):
    """A host that writes until it is refused; notes what was taken."""
    chunk = bytes(Library.LARGEST_WRITE)
    while (result := library.write(chunk)) == 0:
        written.append(len(chunk))
    return result


def blocked_writer(library):
    """A writer in a thread, once its next write no longer fits and has most likely begun to wait."""
    written = []
    join = in_thread(until_refused, library, written)
    while sum(written) + Library.LARGEST_WRITE <= RING:
        time.sleep(0.001)
    time.sleep(0.05)  # either order must come out the same; this only makes the blocked one likely
    return join


def own_threads():
    names = {task: comm(task) for task in os.listdir("/proc/self/task")}
    return {task: name for task, name in names.items() if name}


def descriptors():
    targets = {file: link(file) for file in os.listdir("/proc/self/fd")}
    return {file: target for file, target in targets.items() if target}


def families():
    """The address families of the process's sockets."""
    found = []
    for file, target in descriptors().items():
        if target.startswith("socket:"):
            # Named, since not every family can be asked for its address to find out.
            with socket.socket(socket.AF_UNIX, socket.SOCK_RAW, 0, os.dup(int(file))) as own:
                found.append(own.getsockopt(socket.SOL_SOCKET, socket.SO_DOMAIN))
    return found


def comm(task):
    """The name of a thread; empty once it has ended."""
    try:
        with open(f"/proc/self/task/{task}/comm") as file:
            return file.read().strip()
    except (FileNotFoundError, ProcessLookupError):
        return ""


def link(file):
    try:
        return os.readlink(f"/proc/self/fd/{file}")
    except FileNotFoundError:
        return ""
