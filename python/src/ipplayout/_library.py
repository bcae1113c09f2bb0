# SPDX-License-Identifier: MIT
"""The shared library, loaded when it is first needed, and its functions.

By ctypes, which comes with Python: no compiler and no package of others is needed to install or to run this, and a
call costs a microsecond, which a write of 256 KiB does not notice. ctypes lets go of the interpreter's lock for the
time of each call, so a write that waits for room holds up no other thread.
"""
from __future__ import annotations

import ctypes
import functools
import os
from ctypes import POINTER, c_char_p, c_double, c_int, c_int64, c_size_t, c_ssize_t, c_uint32, c_uint64, c_void_p

from .errors import BY_CODE, BadState, Error, NoResources, NotInstalled
from .records import (IpPlayoutDeparture, IpPlayoutDone, IpPlayoutFaultCounts, IpPlayoutOrder, IpPlayoutRecord,
                      IpPlayoutSettings, IpPlayoutTiming, PlayoutStatistics)

SONAME = "libipplayout.so.1"
# Room for the settings of a library that has more of them than this package knows.
ROOM = 1 << 16

FUNCTIONS: dict[str, tuple[type | None, list[type]]] = {
    "Open": (c_void_p, []),
    "Close": (c_int, [c_void_p]),
    "Defaults": (None, [c_void_p]),
    "Configure": (c_int, [c_void_p, POINTER(IpPlayoutSettings)]),
    "Mark": (c_int, [c_void_p, c_uint64, c_int64]),
    "Start": (c_int, [POINTER(c_void_p), c_size_t, c_int64]),
    "Now": (c_int64, []),
    "Write": (c_int, [c_void_p, c_void_p, c_size_t]),
    "TryWrite": (c_int, [c_void_p, c_void_p, c_size_t, POINTER(c_size_t)]),
    "End": (c_int, [c_void_p]),
    "Wait": (c_int, [c_void_p, c_int64]),
    "EndEvent": (c_ssize_t, [c_void_p]),
    "Pause": (c_int, [c_void_p, c_uint32]),
    "Stop": (c_int, [c_void_p]),
    "OrderFault": (c_int, [c_void_p, POINTER(IpPlayoutOrder)]),
    "Change": (c_int, [c_void_p, POINTER(IpPlayoutSettings), c_double, c_int64]),
    "ReadDone": (c_int, [c_void_p, POINTER(IpPlayoutDone), c_size_t, POINTER(c_size_t)]),
    "GetFaults": (c_int, [c_void_p, POINTER(IpPlayoutFaultCounts)]),
    "Damage": (c_int, [c_void_p, c_uint32, c_uint32]),
    "GetStatistics": (c_int, [c_void_p, POINTER(PlayoutStatistics)]),
    "GetTiming": (c_int, [c_void_p, POINTER(IpPlayoutTiming)]),
    "GetLateness": (c_int, [c_void_p, c_int64, POINTER(c_uint64), POINTER(c_int64)]),
    "ReadLedger": (c_int, [c_void_p, POINTER(IpPlayoutRecord), c_size_t, POINTER(c_size_t)]),
    "ReadDepartures": (c_int, [c_void_p, POINTER(IpPlayoutDeparture), c_size_t, POINTER(c_size_t)]),
    "WriteLedger": (c_int, [c_void_p, c_char_p]),
    "Seed": (c_uint64, [c_void_p]),
    "Error": (c_char_p, []),
}


class Library:
    """The functions of playouts.h."""

    def __init__(self, path: str) -> None:
        try:
            dll = ctypes.CDLL(path)
            self._functions = {name: getattr(dll, "IpPlayout" + name) for name in FUNCTIONS}
        except (OSError, AttributeError) as error:
            raise NotInstalled(f"{error}: install the Debian package libipplayout1, "
                               "or name the library in IPPLAYOUT_LIBRARY") from None
        for name, (result, arguments) in FUNCTIONS.items():
            self._functions[name].restype, self._functions[name].argtypes = result, arguments
        self.is_of_parent = False
        os.register_at_fork(after_in_child=self._leave_to_parent)

    def _leave_to_parent(self) -> None:
        self.is_of_parent = True

    def _check_process(self) -> None:
        """The library's threads are not in a child made by fork, which would wait for them forever."""
        if self.is_of_parent:
            raise BadState("this process was made by fork, and its parent has the library's threads; "
                           "make it with exec, or by multiprocessing's \"spawn\"")

    def plain(self, name: str, *arguments: object) -> int:
        """Calls a function whose result is a value."""
        self._check_process()
        return int(self._functions[name](*arguments) or 0)

    def call(self, name: str, *arguments: object) -> None:
        """Calls a function whose result is a code, and raises what it reports."""
        self._check_process()
        code = self._functions[name](*arguments)
        if code != 0:
            # Kept for each thread of the system, and this call was on the same one.
            raise BY_CODE.get(code, Error)(self._functions["Error"]().decode(errors="replace"))

    def open(self) -> int:
        handle = self.plain("Open")
        if handle == 0:
            raise NoResources(self._functions["Error"]().decode(errors="replace"))
        return handle

    def defaults(self) -> IpPlayoutSettings:
        room = ctypes.create_string_buffer(ROOM)
        self.plain("Defaults", ctypes.addressof(room))
        settings = IpPlayoutSettings.from_buffer_copy(room)
        if settings.Size != ctypes.sizeof(settings):
            raise NotInstalled(f"the library has settings of {settings.Size} bytes, this package "
                               f"{ctypes.sizeof(settings)}: install both of the same version")
        return settings


@functools.lru_cache(maxsize=1)
def library() -> Library:
    return Library(os.environ.get("IPPLAYOUT_LIBRARY", SONAME))
