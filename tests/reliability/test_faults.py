# SPDX-License-Identifier: MIT
"""Faults of the adapter, the socket and the system: the host hears of them, the next playout is clean."""
import contextlib
import ctypes
import errno
import itertools
import os
import resource
import select
import time
import unittest

from harness import A_WHILE, FOREVER, Host, Model, ReliabilityCase, TYPICAL, datagrams
from host import begin, in_thread, until_refused, until_sent
from library import Library
from testbed import Testbed

RATES = (1.0, 100.0, 900.0)
UPPER = "upper"  # a second adapter on top of the near one, which can go and come back
FAULTS_OF_THE_ADAPTER = {
    "goes down": (Testbed.NEAR, f"ip link set {Testbed.NEAR} down", f"ip link set {Testbed.NEAR} up"),
    "gets an MTU below the frame": (
        Testbed.NEAR, f"ip link set {Testbed.NEAR} mtu 1000",
        f"ip link set {Testbed.NEAR} mtu {Testbed.MTU}"),
    "is deleted": (UPPER, f"ip link delete {UPPER}",
                   f"ip link add link {Testbed.NEAR} name {UPPER} type macvlan && ip link set {UPPER} up"),
}
# The call that fails, from which call on, how often, with what error, and whether the playout goes on.
FAULTS_OF_THE_SOCKET = {
    "the adapter's queue is full for a while": ("sendmmsg", 20, A_WHILE, errno.ENOBUFS, True),
    "the socket is full for a while": ("sendmmsg", 20, A_WHILE, errno.EAGAIN, True),
    "signals interrupt": ("sendmmsg", 20, A_WHILE, errno.EINTR, True),
    "bursts are cut short": ("short", 0, FOREVER, 0, True),
    "the adapter's queue stays full": ("sendmmsg", 20, FOREVER, errno.ENOBUFS, False),
    "sending is forbidden": ("sendmmsg", 20, 1, errno.EPERM, False),
    "a frame is too long": ("sendmmsg", 20, 1, errno.EMSGSIZE, False),
    "the kernel has no memory": ("sendmmsg", 20, 1, errno.ENOMEM, False),
    # Of the AF_XDP socket: what it cannot send for certain leaves through the packet socket.
    "no room in the kernel for a while": ("sendto", 20, A_WHILE, errno.EAGAIN, True),
    "a frame is dropped": ("sendto", 20, 1, errno.EBUSY, True),
    "the kernel no longer allows it": ("sendto", 20, 1, errno.EPERM, True),
    "no room in the kernel ever": ("sendto", 20, FOREVER, errno.EAGAIN, False),
}
BATCHES = 80.0  # Mbit/s from which on frames leave in batches, where it can be through AF_XDP
EVERY_CALL = [(first, count) for first in range(1000) for count in (1, FOREVER)]
FAULTS_OF_THE_SYSTEM = {"memory": errno.ENOMEM, "thread": errno.EAGAIN, "socket": errno.EMFILE,
                        "eventfd": errno.EMFILE, "setsockopt": errno.ENOMEM, "ioctl": errno.ENODEV,
                        "timer": errno.EPERM}


def occurs(fault, rate):
    return fault[0] != "sendto" or rate > BATCHES


def choose_sender(host, fault):
    """No AF_XDP is to be had where the calls of the packet socket are to fail; whether it is to be had."""
    through_xdp = fault[0] == "sendto"
    if not through_xdp:
        host.faults.set("xdp", error=errno.EAFNOSUPPORT)
    return through_xdp


def fail(host, provoke, repair, through_xdp=False):
    """A playout that fails in mid-run, and a clean one after it; when the host heard of the failure."""
    library = host.library
    event = os.eventfd(0, os.EFD_NONBLOCK)
    library.register(event)
    host.before = host.traces()
    begin(library, through_xdp=through_xdp)
    with contextlib.suppress(BlockingIOError):
        os.eventfd_read(event)  # starts that were given up have ended, too
    writer = in_thread(lambda: (until_refused(library, []), time.monotonic()))
    until_sent(library, 15)
    begun = time.monotonic()
    provoke()
    select.select([event], [], [])
    completed = time.monotonic()
    result, refused = writer()
    assert result == Library.FAILED
    assert library.IsPlayoutComplete() == 1
    assert library.write(bytes(4)) == Library.FAILED
    assert library.IPWriteTerminate() == 0
    library.IPStop()
    stopped = time.monotonic()
    repair()
    host.assert_nothing_left()
    return {"completed": round(completed - begun, 3), "refused": round(refused - begun, 3),
            "stopped": round(stopped - begun, 3)}


class AdapterFaults(ReliabilityCase):
    def test_adapter(self):
        """Whatever happens to the adapter in mid-run, the run ends and a start after its return plays."""
        def body(library, adapter, lose, restore, rate, data):
            self.bed.near.run("sh", "-c", f"ip link show {adapter} >/dev/null 2>&1 || {{ {restore}; }}")
            host = Host(library, adapter, {"IPBitRate": rate})
            times = fail(host, lambda: self.bed.near.run("sh", "-c", lose),
                         lambda: self.bed.near.run("sh", "-c", restore))
            return {"times": times, "statistics": host.play(data)}
        data = datagrams(Model(TYPICAL), 5)
        for (fault, row), rate in itertools.product(FAULTS_OF_THE_ADAPTER.items(), RATES):
            with self.subTest(fault=fault, rate=rate):
                outcome = self.bed.run(body, *row, rate, data)
                self.report(fault=fault, rate=rate, **outcome.value["times"])
                self.check_end(outcome, {**TYPICAL, "IPBitRate": rate}, data)

    def test_link_that_stays_away(self):
        """A link that the other end takes away for longer than a moment ends the run; when it is back, a start plays."""
        def take(state):
            self.bed.far.run("ip", "link", "set", Testbed.FAR, state)

        def body(library, rate, data):
            host = Host(library, settings={"IPBitRate": rate})
            times = fail(host, lambda: take("down"), lambda: take("up"))
            return {"times": times, "statistics": host.play(data)}
        data = datagrams(Model(TYPICAL), 5)
        for rate in RATES:
            with self.subTest(rate=rate):
                outcome = self.bed.run(body, rate, data)
                self.report(fault="the link stays away", rate=rate, **outcome.value["times"])
                self.check_end(outcome, {**TYPICAL, "IPBitRate": rate}, data)

    def test_socket(self):
        """A full queue is waited for and nothing is lost; what cannot pass ends the run."""
        def survive(library, fault, settings, data):
            host = Host(library, settings=settings)
            through_xdp = choose_sender(host, fault)
            host.faults.set(*fault)
            statistics = host.play(data, through_xdp)
            refused = host.faults.refused(fault[0])
            host.faults.clear(fault[0])
            host.assert_nothing_left()
            return {"refused": refused, "statistics": statistics}

        def perish(library, fault, settings, data):
            host = Host(library, settings=settings)
            through_xdp = choose_sender(host, fault)
            times = fail(host, lambda: host.faults.set(*fault), lambda: host.faults.clear(fault[0]),
                         through_xdp)
            return {"times": times, "statistics": host.play(data)}
        for (name, (*fault, goes_on)), rate in itertools.product(FAULTS_OF_THE_SOCKET.items(), RATES):
            if not occurs(fault, rate):
                continue
            settings = {**TYPICAL, "IPBitRate": rate}
            with self.subTest(fault=name, rate=rate):
                data = datagrams(Model(settings), max(60, int(rate * 3)))
                outcome = self.bed.run(survive if goes_on else perish, fault, settings, data)
                self.check_end(outcome, settings, data)
                self.report(fault=name, rate=rate, **outcome.value.get("times", {}))
                if goes_on and fault[0] != "short":  # a burst is due together only where frames are late
                    self.assertGreater(outcome.value["refused"], 0, "the fault did not come about")


class SystemFaults(ReliabilityCase):
    def test_start(self):
        """The n-th call of its kind fails during a start, for every n, alone or with all after it."""
        def body(library, call, data, settings):
            host = Host(library, settings=settings)
            for turn, (first, count) in enumerate(EVERY_CALL):
                host.faults.set(call, first, count, FAULTS_OF_THE_SYSTEM[call])
                result = library.IPStart()
                if result == 0:
                    library.write(data)
                    library.IPWriteTerminate()
                assert library.IsPlayoutComplete() == 1
                library.IPStop()
                refused = host.faults.refused(call)
                host.faults.clear(call)
                host.assert_nothing_left(f"{call} {first} {count}")
                if not refused:
                    return {"statistics": host.play(data), "turns": turn}
                if turn % 7 == 0:
                    host.play(data)
        self.check_every_call(body, TYPICAL)
        self.check_every_call(body, {**TYPICAL, "IPBitRate": 10 * BATCHES})

    def test_initialisation(self):
        """The same for an initialisation: the next one finds every adapter again."""
        def body(library, call, data, settings):
            host = Host(library, settings=settings)
            for turn, (first, count) in enumerate(EVERY_CALL):
                library.CleanupIpPlayout()
                host.faults.set(call, first, count, FAULTS_OF_THE_SYSTEM[call])
                assert library.InitIpPlayout() == 1
                refused = host.faults.refused(call)
                host.faults.clear(call)
                library.IPStart()  # settings are zero: refused in any case, and nothing hangs
                library.IPStop()
                library.CleanupIpPlayout()
                library.initialise(Testbed.NEAR)
                library.configure(settings)
                host.assert_nothing_left(f"{call} {first} {count}")
                if not refused:
                    return {"statistics": host.play(data), "turns": turn}
        self.check_every_call(body, TYPICAL)

    def check_every_call(self, body, settings):
        data = datagrams(Model(settings), 5)
        for call in FAULTS_OF_THE_SYSTEM:
            with self.subTest(call=call, rate=settings["IPBitRate"]):
                outcome = self.bed.run(body, call, data, settings)
                self.check_end(outcome, settings, data)
                self.report(call=call, turns=outcome.value["turns"])

    def test_no_descriptor_left(self):
        def body(library, data):
            host = Host(library)
            soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
            resource.setrlimit(resource.RLIMIT_NOFILE, (3, hard))
            refused = library.IPStart()
            library.IPStop()
            resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
            assert library.IPStart() == 0
            assert library.write(data) == 0
            resource.setrlimit(resource.RLIMIT_NOFILE, (3, hard))
            library.IPWriteTerminate()
            library.IPStop()
            library.CleanupIpPlayout()
            library.InitIpPlayout()
            assert library.devices() == [] and library.GetIPStopEvent() == 0
            resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
            library.CleanupIpPlayout()
            library.initialise(Testbed.NEAR)
            library.configure(TYPICAL)
            host.assert_nothing_left()
            assert refused == Library.FAILED
            return {"statistics": host.play(data)}
        data = datagrams(Model(TYPICAL), 5)
        self.check_end(self.bed.run(body, data), TYPICAL, data)

    def test_address_resolution(self):
        """The kernel's tables cannot be asked: the answer is no, and the next one is right."""
        def body(library, data):
            host = Host(library)
            target, mac = (ctypes.c_uint8 * 4)(10, 77, 0, 2), (ctypes.c_uint8 * 6)()
            pointer = ctypes.pointer(mac)
            arguments = (0, ctypes.addressof(target), ctypes.addressof(pointer), library.GetDeviceIndex())
            assert library.GetMacAddressForIP(*arguments) == 1
            right, host.before = bytes(mac), host.traces()
            for call in ("memory", "socket", "sendto", "recvmsg"):
                for first, count in EVERY_CALL:
                    host.faults.set(call, first, count, errno.ENOBUFS)
                    library.GetMacAddressForIP(*arguments)
                    refused = host.faults.refused(call)
                    host.faults.clear(call)
                    host.assert_nothing_left(f"{call} {first}")
                    if not refused:
                        break
                    mac[:] = bytes(6)
                    assert library.GetMacAddressForIP(*arguments) == 1 and bytes(mac) == right, call
                assert first > 0, f"{call} is not used"
            return {"statistics": host.play(data)}
        self.bed.near.run("ip", "address", "add", "10.77.0.1/24", "dev", Testbed.NEAR)
        self.bed.near.run("ip", "neighbour", "add", "10.77.0.2", "lladdr", "02:00:00:00:00:02",
                          "dev", Testbed.NEAR, "nud", "permanent")
        data = datagrams(Model(TYPICAL), 5)
        self.check_end(self.bed.run(body, data), TYPICAL, data)


if __name__ == "__main__":
    unittest.main()
