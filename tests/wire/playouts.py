# SPDX-License-Identifier: MIT
"""The interface of many playouts, bound as its header declares it, and what their frames must be."""
import ctypes
import pathlib
import re
import struct
from collections import namedtuple
from ctypes import byref, c_size_t
from fractions import Fraction

from library import TYPES, as_declared
from model import Model

TO_ADAPTER, TO_FILE, TO_SOCKET = range(3)
BOUNDED, CATCH_UP, SHIFT, DROP = range(4)
FAILS, COUNTS = range(2)
LOSE, DELAY, SENT_HELD, BAD_IP, BAD_UDP, LEFT_OUT, REFUSED, FEC_COLUMN, FEC_ROW, DUPLICATE, CORRUPT = (1 << i for i in range(11))
DONE, BAD_PLAYOUT, BAD_VALUE, BAD_STATE, BAD_DESTINATION, NO_RESOURCES, ENDED, NOT_YET = (-i for i in range(8))

Departure = namedtuple("Departure", "time frame")


def read_header():
    folder = pathlib.Path(__file__).resolve().parents[2] / "include" / "ipplayout"
    text = re.sub(r"//[^\n]*", "", (folder / "playouts.h").read_text())
    TYPES.update({"size_t": c_size_t, "IpPlayout": ctypes.c_void_p})
    for body, name in re.findall(r"typedef struct \w+ \{(.*?)\} (\w+);", text, re.S):
        TYPES[name] = type(name, (ctypes.Structure,),
                           {"_fields_": [as_declared(field) for field in body.split(";")[:-1]]})
    functions = {}
    for declared, parameters in re.findall(r"^(\w[^\n(;{#]*)\(([^)]*)\);", text, re.M):
        name, result = as_declared(declared)
        functions[name] = (ctypes.c_char_p if "char" in declared else result,
                           [ctypes.c_void_p if "*" in parameter else as_declared(parameter)[1]
                            for parameter in parameters.split(",") if parameter.strip() != "void"])
    return functions


FUNCTIONS = read_header()
Settings, Timing, Record = (TYPES["IpPlayout" + name] for name in ("Settings", "Timing", "Record"))


class Refused(Exception):
    def __init__(self, code, sentence):
        super().__init__(sentence)
        self.code = code

    def __reduce__(self):
        return Refused, (self.code, str(self))


def set_field(record, name, value):
    """Sets the field of that name wherever it stands in the record; False when there is none.

    Of records in it that are alike the first is meant; "FecErrors.PacketLossEnabled" names another one.
    """
    if "." in name:
        record_name, name = name.split(".")
        return set_field(getattr(record, record_name), name, value)
    for field, kind in record._fields_:
        if field == name and not issubclass(kind, ctypes.Structure):
            setattr(record, name, kind(*value) if isinstance(value, bytes) and name != "Destination" else value)
            return True
    return any(issubclass(kind, ctypes.Structure) and set_field(getattr(record, field), name, value)
               for field, kind in record._fields_)


class Playouts:
    def __init__(self, path):
        self._dll = ctypes.CDLL(path)
        for name, (result, arguments) in FUNCTIONS.items():
            function = getattr(self._dll, name)
            function.restype, function.argtypes = result, arguments

    def call(self, name, *arguments):
        code = getattr(self._dll, "IpPlayout" + name)(*arguments)
        if code != DONE:
            raise Refused(code, self._dll.IpPlayoutError().decode())

    def now(self):
        return self._dll.IpPlayoutNow()

    def open(self, settings, **more):
        """Settings by the names of the fields; IPBitRate is called BitRate here."""
        record = Settings()
        self._dll.IpPlayoutDefaults(byref(record))
        wanted = {"RandomSSRC": 0, "RandomSequenceNumber": 0, **settings, **more}
        wanted["BitRate"] = wanted.pop("IPBitRate", 0.0)
        playout = Playout(self, self._dll.IpPlayoutOpen())
        for name, value in wanted.items():
            assert set_field(record, name, value), name
        playout.call("Configure", byref(record))
        return playout

    def start(self, playouts, at=0):
        handles = (ctypes.c_void_p * len(playouts))(*(p.handle for p in playouts))
        self.call("Start", handles, len(playouts), at)


class Playout:
    def __init__(self, library, handle):
        self.library, self.handle = library, handle

    def call(self, name, *arguments):
        self.library.call(name, self.handle, *arguments)

    def write(self, data):
        self.call("Write", data, len(data))

    def play(self, data, marks=(), at=0):
        """A whole run; its statistics."""
        for offset, time in marks:
            self.call("Mark", offset, time)
        self.library.start([self], at)
        self.write(data)
        self.call("End")
        self.call("Wait", -1)
        return self.statistics()

    def statistics(self):
        values = TYPES["PlayoutStatistics"]()
        self.call("GetStatistics", byref(values))
        return {name: getattr(values, name) for name, _ in values._fields_ if name != "Jitter"}

    def timing(self):
        values = Timing()
        self.call("GetTiming", byref(values))
        return {name: getattr(values, name) for name, _ in values._fields_}

    def ledger(self):
        records, taken = (Record * 4096)(), c_size_t()
        self.call("ReadLedger", records, len(records), byref(taken))
        return [{name: getattr(record, name) for name, _ in Record._fields_} for record in records[:taken.value]]


def read_pcapng(path):
    """[(nanoseconds, frame)] of the packet blocks of a file with one interface in nanoseconds."""
    with open(path, "rb") as file:
        data = file.read()
    at, packets = 0, []
    while at < len(data):
        kind, length = struct.unpack_from("<II", data, at)
        if kind == 6:
            _, high, low, captured, original = struct.unpack_from("<IIIII", data, at + 8)
            assert captured == original
            packets.append(Departure(high << 32 | low, data[at + 28:at + 28 + captured]))
        at += length
    return packets


class ScheduledModel(Model):
    """Frames with the times at which they leave, from marks or a bit rate, without any randomness."""

    def __init__(self, settings, marks=()):
        super().__init__(settings)
        self.marks = marks or ((0, 0), (self.payload_size, Fraction(self.datagram_size * 8000)
                                        / Fraction(self.value("IPBitRate"))))

    def place(self, offset):
        pairs = list(zip(self.marks, self.marks[1:]))
        (first, begin), (last, end) = next((pair for pair in pairs if offset <= pair[1][0]), pairs[-1])
        return int(begin + Fraction(end - begin) * (offset - first) / (last - first) + Fraction(1, 2))

    def departures(self, data, first_timestamp=0):
        wire, held, offset = [], {}, 0
        for index, payload in enumerate(self.payloads(data)):
            due, after = self.place(offset), self.place(offset + len(payload))
            offset += len(payload)
            checksum = self.scheduled("ChecksumError", index)
            ip_damage = self.ipv4 and checksum and self.value("ChecksumErrorType") == 0
            udp_damage = checksum and self.value("ChecksumErrorType") == 1
            lost = self.scheduled("PacketLoss", index)
            late = self.rtp and not lost and self.scheduled("SequenceError", index)
            for copy in range(self.copies):
                time = due + (after - due) * copy // self.copies
                timestamp = (first_timestamp + time * 9 // 100_000) & 0xFFFFFFFF
                frame = self.frame(index, copy, payload, timestamp, int(ip_damage), int(udp_damage))
                if (index, copy) in held:
                    wire.append(Departure(time, held.pop((index, copy))))
                if late:
                    held.setdefault((index + self.value("SequenceErrorDistance") + 1, copy), frame)
                elif not lost:
                    wire.append(Departure(time, frame))
        return wire
