# SPDX-License-Identifier: MIT
"""Every exported setting: its accessors reach its own field and nothing else."""
import ctypes
import unittest
from ctypes import byref, c_char_p, c_void_p, memmove

from library import FUNCTIONS, SETTERS, TYPES
from wire_case import TYPICAL, TYPICAL_IPV6, WireCase

IPPlayParams, ErrorInsertion, ParametricSettings, TTSSettings, IPOtherSettings = (TYPES[name] for name in (
    "IPPlayParams", "ErrorInsertion", "ParametricSettings", "TTSSettings", "IPOtherSettings"))
RECORDS = {name: kind for name, kind in SETTERS.items() if hasattr(kind, "contents")}  # set by a pointer
VALUES = {name: kind for name, kind in SETTERS.items() if issubclass(kind, ctypes._SimpleCData)
          and kind not in (c_void_p, c_char_p)}
ALONE = ("TSPacketSize", "IPBitRate", "IPBitRateChosen", "PlayFileSizeForIP")  # in no record
DRAWN = {"SequenceNumber": "RandomSequenceNumber", "SSRC": "RandomSSRC"}  # a number set is not drawn


def pattern(size, first):
    return bytes((first + 7 * i) % 251 + 1 for i in range(size))


def fields(record):
    """{name: bytes} of all fields of a record, those of its inner records included."""
    found = {}
    for name, kind in record._fields_:
        value = getattr(type(record), name)
        if issubclass(kind, ctypes.Structure):
            found.update(fields(getattr(record, name)))
        else:
            found[name] = bytes(record)[value.offset:value.offset + value.size]
    return found


def image(library):
    """The bytes of every setting by name."""
    found = {**fields(library.GetIPPlayParams().contents), **fields(library.GetErrorInsertion().contents)}
    for kind in (ParametricSettings, TTSSettings, IPOtherSettings):
        getattr(library, "Get" + kind.__name__)(byref(record := kind()))
        found.update(fields(record))
    for name in ALONE:
        found[name] = bytes(SETTERS[name](getattr(library, "Get" + name)()))
    return {**found, "IPEnabled": bytes(ctypes.c_uint32(library.IsIPEnabled()))}


def changes(library, change):
    """What `change` did to settings full of 0xEE, as {name: new bytes}."""
    library.SetIPOtherSettings(0xEEEEEEEE, 0xEEEEEEEE)
    for kind in (IPPlayParams, ErrorInsertion, ParametricSettings, TTSSettings):
        getattr(library, "Set" + kind.__name__)(kind.from_buffer_copy(b"\xee" * ctypes.sizeof(kind)))
    for name in (*ALONE, "IPEnabled"):
        getattr(library, "Set" + name)(SETTERS[name].from_buffer_copy(b"\xee" * 8))
    before = image(library)
    change()
    return {name: value for name, value in image(library).items() if value != before[name]}


class Settings(WireCase):
    def check(self, body):
        """Compares the (what, found, expected) that body yields in a host process."""
        for what, found, expected in self.bed.run(lambda library: list(body(library))).value:
            with self.subTest(what):
                self.assertEqual(found, expected)

    def test_single_values(self):
        def body(library):
            yield "when loaded", set(b"".join(image(library).values())), {0}
            yield "values", len(VALUES) > 90, True
            for first, (name, kind) in enumerate(VALUES.items()):
                value = kind.from_buffer_copy(pattern(8, first))
                expected = {name: bytes(value)}
                if name == "VLANIdentifierIncrement":
                    expected[name] += bytes(2)
                if name in DRAWN:
                    expected[DRAWN[name]] = bytes(4)
                yield name, changes(library, lambda: getattr(library, "Set" + name)(value)), expected
                if "Get" + name in FUNCTIONS and name not in ("TotalLength", "Length"):  # work it out
                    yield "Get" + name, getattr(library, "Get" + name)(), value.value
        self.check(body)

    def test_addresses(self):
        def body(library):
            widths = {name: len(value) for name, value in image(library).items()}
            for name in (name for name, kind in SETTERS.items() if kind is c_void_p):
                setter, value, width = getattr(library, "Set" + name), pattern(20, 1), widths[name]
                yield name, changes(library, lambda: setter(value)), {name: value[:width]}
                yield name + ", null", changes(library, lambda: setter(None)), {}
                if "Get" + name in FUNCTIONS:
                    yield "Get" + name, changes(library, lambda: memmove(
                        getattr(library, "Get" + name)(), value, width)), {name: value[:width]}
        self.check(body)

    def test_records(self):
        def body(library):
            for name, pointer in RECORDS.items():
                value = pointer._type_.from_buffer_copy(pattern(ctypes.sizeof(pointer._type_), 3))
                setter, live = getattr(library, "Set" + name), getattr(library, "Get" + name)
                yield name, changes(library, lambda: setter(byref(value))), fields(value)
                yield name + ", null", changes(library, lambda: setter(None)), {}
                yield name + ", from itself", changes(library, lambda: setter(live())), {}
                yield "Get" + name, changes(
                    library, lambda: memmove(live(), byref(value), ctypes.sizeof(value))), fields(value)
            for kind in (ParametricSettings, TTSSettings):
                value = kind.from_buffer_copy(pattern(ctypes.sizeof(kind), 5))
                setter = getattr(library, "Set" + kind.__name__)
                yield kind.__name__, changes(library, lambda: setter(value)), fields(value)
            yield "IPOtherSettings", changes(library, lambda: library.SetIPOtherSettings(4, 2)), fields(
                IPOtherSettings(4, 2))
            for kind in (ParametricSettings, TTSSettings, IPOtherSettings):
                getattr(library, "Get" + kind.__name__)(None)
        self.check(body)

    def test_names_are_cut_to_their_field(self):
        def body(library):
            for name in ("ConfigurationName", "DeviceName"):
                setter = getattr(library, "Set" + name)
                for length in (0, 1, 198, 199, 200, 5000):
                    yield (name, length), changes(library, lambda: setter(b"n" * length)), {
                        name: (b"n" * min(length, 199)).ljust(200, b"\0")}
                    yield "Get" + name, getattr(library, "Get" + name)(), b"n" * min(length, 199)
                yield name + ", null", changes(library, lambda: setter(None)), {}
        self.check(body)

    def test_initialisation_clears_what_describes_one_playout(self):
        def body(library):
            cleared = changes(library, library.InitIpPlayout)
            kept = {*fields(TTSSettings()), *ALONE, "IPEnabled"}
            yield "cleared", set(cleared), set(image(library)) - kept
            yield "values", set(b"".join(cleared.values())), {0}
            for name in ("TSStats", "IPStats"):
                record = getattr(library, "Get" + name)().contents
                ctypes.memset(byref(record), 0xEE, ctypes.sizeof(record))
                library.InitIpPlayout()
                yield name, set(bytes(record)), {0}
        self.check(body)

    def test_values_derived_from_the_settings(self):
        def body(library):
            for base, more, expected in (  # total length, IPv6 payload length, UDP length
                    (TYPICAL, {}, (1356, 1336, 1336)), (TYPICAL_IPV6, {}, (1356, 1336, 1336)),
                    (TYPICAL, {"IPProtocol": 2}, (1356, 1336, 1336)),  # its option does not count
                    (TYPICAL_IPV6, {"ProtocolMode": 0, "VLANEnabled": 1}, (1344, 1324, 1324)),
                    (TYPICAL, {"TSPacketSize": 204, "TTSEnabled": 1}, (1384, 1364, 1364)),  # 192 of each
                    (TYPICAL, {"TSPacketSize": 200, "TTSEnabled": 1}, (40, 20, 20)),  # no such packet
                    (TYPICAL, {"TSPacketSize": 0, "TTSEnabled": 1}, (40, 20, 20)),
                    (TYPICAL, {"TSPacketSize": 204, "TTSEnabled": 2, "VLANEnabled": 2}, (1468, 1448, 1448)),
                    (TYPICAL, {"PacketSizeMode": 0, "VLANEnabled": 2}, (1356, 1316, 1336)),
                    (TYPICAL, {"PacketSizeMode": 0, "VLANEnabled": 1}, (1352, 1312, 1332)),
                    (TYPICAL_IPV6, {"PacketSizeMode": 0, "ProtocolMode": 0}, (1356, 1316, 1316))):
                library.configure({"VLANEnabled": 0, "TTSEnabled": 0, **base, **more})
                yield more, (library.GetTotalLength(), library.GetIpv6PayloadLength(),
                             library.GetLength()), expected
                yield "stored", (library.GetIPHeaderSettings().contents.TotalLength,
                                 library.GetIPv6HeaderSettings().contents.Ipv6PayloadLength,
                                 library.GetUDPHeaderSettings().contents.Length), expected
            yield "MTUs", [library.GetMaxIPMTU(*arguments) for arguments in (
                (0, 1), (0, 0), (0, 2), (1, 0), (1, 1), (2, 1))], [16128, 1500, 1500, 16128, 16128, 0]
            library.SetReplicationCount(3)
            count = ctypes.c_uint32()
            yield "replication", (library.GetStreamReplicationCount(byref(count)), count.value), (1, 3)
        self.check(body)


if __name__ == "__main__":
    unittest.main()
