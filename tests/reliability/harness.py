# SPDX-License-Identifier: MIT
"""A host on a wire with faults below it: what the tests of survival share."""
import ctypes
import os
import re

from host import begin, descriptors, own_threads
from library import Library
from testbed import PRINTED, Testbed
from wire_case import TYPICAL, Model, WireCase, datagrams, stream  # noqa: F401 (for the tests)

SECONDS = float(os.environ.get("IPPLAYOUT_RELIABILITY_SECONDS", "10"))  # of what could go on for long
FOREVER = 1 << 40
A_WHILE = (1 << 63) - 1  # as in faults.c
RUN_BY_THE_LIBRARY = ("InitIpPlayout", "CleanupIpPlayout", "IPStart", "IPStop", "IPStopImmediate",
                      "IPWriteTerminate", "GetMacAddressForIP")
PRINTED_ON_FAULTS = re.compile(  # as well
    rf"(timeBeginPeriod failed)*({PRINTED.pattern})"
    r"|PcapInterface::FilterInclude: pcap_(compile|setfilter) failed with result -\d+"
    r"|Unable to open the adapter, Error Code : [0-9a-f]+"
    r"|error retrieving the MAC address of the adapter!| \(ERROR_[A-Z_]+\)")


class Faults:
    """Controls the library that is preloaded below the one under test."""

    def __init__(self):
        dll = ctypes.CDLL(os.environ["IPPLAYOUT_FAULTS"])
        dll.fault_run.argtypes = [ctypes.c_void_p] + [ctypes.c_long] * 4
        dll.fault_set.argtypes = [ctypes.c_char_p, ctypes.c_long, ctypes.c_long, ctypes.c_int]
        dll.fault_refused.argtypes, dll.fault_refused.restype = [ctypes.c_char_p], ctypes.c_long
        dll.fault_held.restype = dll.fault_run.restype = ctypes.c_long
        dll.fault_shift_clock.argtypes = [ctypes.c_long]
        self.held, self.shift_clock, self._dll = dll.fault_held, dll.fault_shift_clock, dll

    def set(self, call, first=0, count=FOREVER, error=0):
        """From the call after `first` others on, `count` calls fail with `error`."""
        self._dll.fault_set(call.encode(), first, count, error)

    def clear(self, call):
        self.set(call, count=0)

    def refused(self, call):
        return self._dll.fault_refused(call.encode())

    def watch(self, library):
        """Counts what the library allocates, and lets its memory and its threads fail."""
        for name in RUN_BY_THE_LIBRARY:
            function = getattr(library, name)
            address = ctypes.cast(function, ctypes.c_void_p)
            setattr(library, name, lambda *given, address=address: ctypes.c_int(
                self._dll.fault_run(address, *given, *[0] * (4 - len(given)))).value)


class NoFaults:
    """In a build with sanitizers, which have their own hold on memory."""
    held = staticmethod(lambda: 0)

    def watch(self, library):
        pass


class Host:
    """The host's side of a test, in the host's process."""

    def __init__(self, library, adapter=Testbed.NEAR, settings=None):
        self.library, self.faults = library, Faults() if "IPPLAYOUT_FAULTS" in os.environ else NoFaults()
        self.faults.watch(library)
        library.initialise(adapter)
        library.configure({**TYPICAL, **(settings or {})})
        # What the first playout and the first failure set up for good is there from now on.
        self.play(stream(8000))
        if isinstance(self.faults, Faults):
            self.faults.set("memory", 0, 1)
            assert library.IPStart() == Library.FAILED
            self.faults.clear("memory")
            library.IPStop()
        self.before = self.traces()

    def play(self, data, through_xdp=False):
        """One whole playout; its statistics."""
        begin(self.library, data, through_xdp)
        self.library.IPWriteTerminate()
        statistics = self.library.statistics()
        self.library.IPStop()
        return statistics

    def traces(self):
        """What a playout could leave behind: threads beside the host's own, descriptors, blocks of memory."""
        names = own_threads()
        own = names.pop(str(os.getpid()))
        return sorted(name for name in names.values() if name != own), descriptors(), self.faults.held()

    def assert_nothing_left(self, what=""):
        for now, before in zip(self.traces(), self.before):
            assert now == before, f"{what}: {now}, before it {before}"


class ReliabilityCase(WireCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.bed.printed = PRINTED_ON_FAULTS

    def check_end(self, outcome, settings, data):
        """The last playout on the wire was a clean one of data."""
        expected, statistics = Model(settings).play(data)
        self.assertTrue(outcome.frames[-len(expected):] == expected, "the last playout was not clean")
        self.assertEqual(outcome.value["statistics"], statistics)

    def report(self, **figures):
        print(self.id().rsplit(".", 1)[-1], figures, flush=True)
