# SPDX-License-Identifier: MIT
"""The exported interface of libipplayout.so, bound as its header declares it, and what a host does with it.

Loading fails if one declared function is missing.
"""
import _ctypes
import ctypes
import pathlib
import re
from ctypes import POINTER, byref, c_char, c_char_p, c_int32, c_ssize_t, c_uint8, c_uint16, c_uint32, c_void_p

TYPES = {"char": c_char, "int": c_int32, "int32_t": c_int32, "int64_t": ctypes.c_int64, "uint8_t": c_uint8,
         "uint16_t": c_uint16, "uint32_t": c_uint32, "uint64_t": ctypes.c_uint64, "intptr_t": c_ssize_t,
         "float": ctypes.c_float, "double": ctypes.c_double, "void": None, "unsigned char": c_uint8}
SIZES = {"IPPlayParams": 764, "ProtocolHeadersSettings": 184, "ProtocolHeadersIncrements": 100,
         "ErrorInsertion": 52, "ParametricSettings": 36, "IPOtherSettings": 8, "TTSSettings": 28,
         "PlayoutStatistics": 96, "DeviceListEntry": 464}


def as_declared(declaration):
    """(name, type) of "const uint8_t* address", "struct UDPHeaderSettings UDPHeaderSettings"."""
    match = re.fullmatch(r"(.*?[ *])(\w+)(?:\[(\w+)\])?", declaration.strip())
    text, name, count = match.groups()
    words = re.sub(r"\b(const|struct)\b|\*", "", text).split()
    kind = TYPES[" ".join(words)]
    if "*" in text:
        if text.count("*") > 1 or not (kind and issubclass(kind, ctypes.Structure)):
            kind = POINTER(c_char_p) if "* const*" in text else c_char_p if words == ["char"] else c_void_p
        else:
            kind = POINTER(kind)
    return name, kind * int(count.replace("IPPLAYOUT_NAME_SIZE", "200")) if count else kind


def read_header():
    """Every function as (result, arguments) by its name; every record becomes one of TYPES."""
    folder = pathlib.Path(__file__).resolve().parents[2] / "include" / "ipplayout"
    text = "".join((folder / name).read_text() for name in ("records.h", "settings.h", "ipplayout.h"))
    text = re.sub(r"//[^\n]*", "", text)
    for body, name in re.findall(r"typedef struct \w+ \{(.*?)\} (\w+);", text, re.S):
        fields = [as_declared(field) for field in body.split(";")[:-1]]
        TYPES[name] = type(name, (ctypes.Structure,), {"_fields_": fields})
        assert ctypes.sizeof(TYPES[name]) == SIZES.get(name, ctypes.sizeof(TYPES[name]))
    functions = {}
    for declared, parameters in re.findall(r"^(\w[^\n(;{#]*)\(([^)]*)\);", text, re.M):
        name, result = as_declared(declared)
        kinds = [as_declared(parameter)[1] for parameter in parameters.split(",") if parameter != "void"]
        functions[name] = result, [c_void_p if kind is c_char_p and "Get" in name else kind for kind in kinds]
    functions["_Z17GetIpAddressBytesPcPh"] = functions.pop("GetIpAddressBytes")  # the one C++ symbol
    return functions


FUNCTIONS = read_header()
SETTERS = {name[3:]: arguments[0] for name, (_, arguments) in FUNCTIONS.items()
           if name.startswith("Set") and len(arguments) == 1}


class Library:
    """The loaded library; its exported functions are attributes of the same names."""
    FAILED = -800
    LARGEST_WRITE = 65535 * 4

    def __init__(self, path):
        self._dll = ctypes.CDLL(path)
        for name, (result, arguments) in FUNCTIONS.items():
            function = getattr(self._dll, name)
            function.restype, function.argtypes = result, arguments
            setattr(self, name, function)

    def unload(self):
        _ctypes.dlclose(self._dll._handle)

    def devices(self):
        count = c_int32()
        entries = self.GetListOfDevices(byref(count))
        return entries[:count.value] if entries else []

    def initialise(self, adapter):
        """Initialises the library and chooses the adapter by the name that the system gives it."""
        assert self.InitIpPlayout() == 1
        names = [entry.Name.decode() for entry in self.devices()]
        self.SetDeviceIndex(names.index("rpcap://" + adapter))

    def configure(self, settings):
        for name, value in settings.items():
            if name in SETTERS:
                getattr(self, "Set" + name)(value)
            else:  # has no setter of its own: written through the pointer of its group
                group = {"IPv6Version": self.GetIPv6HeaderSettings}.get(
                    name, self.GetRTPHeaderSettings)().contents
                assert name in (field for field, _ in group._fields_), name
                setattr(group, name, value)

    def write(self, data):
        """Writes all of data, whose length is a multiple of 4, until refused; the last result."""
        assert len(data) % 4 == 0
        result = 0
        for start in range(0, len(data), self.LARGEST_WRITE):
            part = data[start:start + self.LARGEST_WRITE]
            result = self.IPWrite(part, len(part) // 4)
            if result != 0:
                break
        return result

    def statistics(self):
        values = TYPES["PlayoutStatistics"]()
        assert self.GetPlayoutStatistics(byref(values)) == 1
        return {name: getattr(values, name) for name, _ in values._fields_ if name != "Jitter"}

    def register(self, event):
        assert self.RegisterForIPPlayoutCompletion(byref(c_ssize_t(event))) == 1

    def play(self, data):
        """One whole playout with the settings in force; its statistics."""
        assert self.IPStart() == 0, "IPStart refused"
        assert self.write(data) == 0, "IPWrite refused"
        assert self.IPWriteTerminate() == 0
        statistics = self.statistics()
        self.IPStop()
        return statistics
