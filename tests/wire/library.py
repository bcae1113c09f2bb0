"""The exported interface of libipplayout.so, bound by hand, and what a host does with it.

Loading fails if one exported function is missing.
"""
import ctypes
from ctypes import POINTER, byref, c_char, c_char_p, c_double, c_float, c_int32, c_int64, c_ssize_t, c_uint8, c_uint16, c_uint32, c_uint64, c_void_p
import _ctypes

# Settings with a setter and a getter, by the type of their value.
SINGLE = {
    c_uint32: """
        ErrInsertionEnable PacketLossEnabled NumPacketLoss PacketLossRange SequenceErrorEnabled
        NumSequenceError SequenceErrorRange SequenceErrorDistance ChecksumErrorEnabled
        ChecksumErrorType NumChecksumError ChecksumErrorRange RandomizeErrors
        BurstMode BurstValueType BurstPeriod BurstSize LowJitterModeEnabled JitterEnabled
        JitterDistributionType PlayerThreadPriority PlayerProcessPriority
        Marker SequenceNumber Padding CSRCCount PayloadType SSRC TimeStamp
        HeaderLength TTL Identification FragmentOffset IPProtocol Checksum
        SourcePort DestinationPort VLANEnabled TPID CFI VID EProtocol
        PayloadTypeIncrement SSRCIncrement TTLIncrement IPProtocolIncrement FlowLabelIncrement
        SourcePortIncrement DestinationPortIncrement EProtocolIncrement
        DeviceIndex IPLayerVersion ProtocolMode BroadcastType PacketSizeMode IPPacketSize
        TSPacketCount TSFragmentation IPFragmentation
        SrcAddrAdvansedFlag DstAddrAdvansedFlag SrcIpv6AddrAdvansedFlag DstIpv6AddrAdvansedFlag
        SrcMacAddrAdvansedFlag DstMacAddrAdvansedFlag SrcPortAdvansedFlag DstPortAdvansedFlag
        VLANIdAdvansedFlag EtherProtocolAdvansedFlag
        TTSEnabled TTSPreserveFileTimestamps TTSJitterEnable TTSJitterPeriod TTSJitterAmplitude
        TTSJitterPulseWidth TTSJitterPatternType IPBitRateChosen TSPacketSize""",
    c_uint8: """RTPVersion IPVersion TOS Flags VLANPriorityLevel TOSIncrement
        TrafficClassIncrement NextHeaderIncrement HopLimitIncrement""",
    c_int32: "Extension ReplicationCount",
    c_float: "JitterPeriod",
    c_double: "IPBitRate",
    c_uint64: "PlayFileSizeForIP",
}
ADDRESSES = {
    "SourceIP": 4, "DestinationIP": 4, "SourceIPIncrement": 4, "DestinationIPIncrement": 4,
    "SourceIPv6": 16, "DestinationIPv6": 16,
    "SourceIPv6AddressIncrement": 16, "DestinationIPv6AddressIncrement": 16,
    "SourceMacAddress": 6, "DestinationMacAddress": 6,
    "SourceMacAddressIncrement": 6, "DestinationMacAddressIncrement": 6,
}
SETTER_ONLY = {"TrafficClass": c_uint8, "FlowLabel": c_uint32, "NextHeader": c_uint8,
               "HopLimit": c_uint8, "TotalLength": c_uint32, "Length": c_uint32}


def record(name, *fields):
    """A record from (type, names) pairs; a type may be a ctypes type or a byte count."""
    members = [(field, kind if not isinstance(kind, int) else c_uint8 * kind)
               for kind, names in fields for field in names.split()]
    return type(name, (ctypes.Structure,), {"_fields_": members})


EthernetHeaderSettings = record(
    "EthernetHeaderSettings", (6, "DestinationMacAddress SourceMacAddress"), (c_uint32, "EProtocol"))
IPHeaderSettings = record(
    "IPHeaderSettings", (c_uint8, "IPVersion TOS"), (c_uint32, "HeaderLength TotalLength"),
    (c_uint8, "Flags"), (c_uint32, "TTL Identification FragmentOffset IPProtocol"),
    (4, "SourceIP"), (c_uint32, "Checksum"), (4, "DestinationIP"))
IPv6HeaderSettings = record(
    "IPv6HeaderSettings", (c_uint8, "IPv6Version TrafficClass"),
    (c_uint32, "FlowLabel Ipv6PayloadLength"), (c_uint8, "NextHeader HopLimit"),
    (16, "SourceIPv6 DestinationIPv6"))
UDPHeaderSettings = record("UDPHeaderSettings", (c_uint32, "SourcePort DestinationPort Length"))
RTPHeaderSettings = record(
    "RTPHeaderSettings", (c_uint8, "RTPVersion"), (c_int32, "Extension"),
    (c_uint32, "Marker RandomSequenceNumber SequenceNumber Padding CSRCCount PayloadType TimeStamp"
               " RandomSSRC SSRC"))
ProtocolHeadersSettings = record(
    "ProtocolHeadersSettings", (EthernetHeaderSettings, "Ethernet"), (c_uint32, "VLANEnabled TPID"),
    (c_uint8, "VLANPriorityLevel"), (c_uint32, "CFI VID"), (IPHeaderSettings, "IP"),
    (IPv6HeaderSettings, "IPv6"), (UDPHeaderSettings, "UDP"), (RTPHeaderSettings, "RTP"))
EthernetHeaderIncrements = record(
    "EthernetHeaderIncrements", (6, "DestinationMacAddressIncrement SourceMacAddressIncrement"),
    (c_uint32, "EProtocolIncrement"))
IPHeaderIncrements = record(
    "IPHeaderIncrements", (c_uint8, "TOSIncrement"), (c_uint32, "TTLIncrement IPProtocolIncrement"),
    (4, "SourceIPIncrement DestinationIPIncrement"))
IPv6HeaderIncrements = record(
    "IPv6HeaderIncrements", (c_uint8, "TrafficClassIncrement"), (c_uint32, "FlowLabelIncrement"),
    (c_uint8, "NextHeaderIncrement HopLimitIncrement"),
    (16, "SourceIPv6AddressIncrement DestinationIPv6AddressIncrement"))
UDPHeaderIncrements = record(
    "UDPHeaderIncrements", (c_uint32, "SourcePortIncrement DestinationPortIncrement"))
RTPHeaderIncrements = record("RTPHeaderIncrements", (c_uint32, "PayloadTypeIncrement SSRCIncrement"))
VLANHeaderIncrements = record("VLANHeaderIncrements", (c_uint32, "VLANIdentifierIncrement"))
ProtocolHeadersIncrements = record(
    "ProtocolHeadersIncrements", (EthernetHeaderIncrements, "Ethernet"), (IPHeaderIncrements, "IP"),
    (IPv6HeaderIncrements, "IPv6"), (UDPHeaderIncrements, "UDP"), (RTPHeaderIncrements, "RTP"),
    (VLANHeaderIncrements, "VLAN"))
IPPlayParams = record(
    "IPPlayParams", (200, "ConfigurationName"), (c_uint32, "IPLayerVersion"), (200, "DeviceName"),
    (c_uint32, "DeviceIndex ProtocolMode BroadcastType PacketSizeMode IPPacketSize TSPacketCount"
               " TSFragmentation IPFragmentation SrcAddrAdvansedFlag DstAddrAdvansedFlag"
               " SrcIpv6AddrAdvansedFlag DstIpv6AddrAdvansedFlag SrcMacAddrAdvansedFlag"
               " DstMacAddrAdvansedFlag SrcPortAdvansedFlag DstPortAdvansedFlag VLANIdAdvansedFlag"
               " EtherProtocolAdvansedFlag"),
    (ProtocolHeadersSettings, "Headers"), (ProtocolHeadersIncrements, "Increments"),
    (c_int32, "ReplicationCount"))
ErrorInsertion = record(
    "ErrorInsertion",
    (c_uint32, "ErrInsertionEnable PacketLossEnabled NumPacketLoss PacketLossRange"
               " SequenceErrorEnabled NumSequenceError SequenceErrorRange SequenceErrorDistance"
               " ChecksumErrorEnabled ChecksumErrorType NumChecksumError ChecksumErrorRange"
               " RandomizeErrors"))
ParametricSettings = record(
    "ParametricSettings",
    (c_uint32, "BurstMode BurstValueType BurstPeriod BurstSize LowJitterModeEnabled JitterEnabled"),
    (c_float, "JitterPeriod"), (c_uint32, "ParametricReserved JitterDistributionType"))
IPOtherSettings = record("IPOtherSettings", (c_uint32, "PlayerThreadPriority PlayerProcessPriority"))
TTSSettings = record(
    "TTSSettings", (c_uint32, "TTSEnabled TTSPreserveFileTimestamps TTSJitterEnable TTSJitterPeriod"
                              " TTSJitterAmplitude TTSJitterPulseWidth TTSJitterPatternType"))
PlayoutStatistics = record(
    "PlayoutStatistics",
    (c_uint64, "DatagramsSent TSPacketsSent BytesSent TSBytesSent TSPacketSize DatagramSize"
               " LostPackets SequenceErrors IPChecksumErrors UDPChecksumErrors"),
    (c_double, "Jitter"), (c_int64, "LostBytes"))
DeviceListEntry = record(
    "DeviceListEntry", (c_int32, "Index"), (c_char * 200, "Name Description"),
    (POINTER(c_char_p), "IPv4Addresses"), (c_int32, "IPv4AddressCount"),
    (POINTER(c_char_p), "IPv6Addresses"), (c_int32, "IPv6AddressCount"),
    (POINTER(c_char_p), "IPv4Netmasks"), (c_int32, "IPv4NetmaskCount"), (6, "MacAddress"))

SIZES = {IPPlayParams: 764, ProtocolHeadersSettings: 184, ProtocolHeadersIncrements: 100,
         ErrorInsertion: 52, ParametricSettings: 36, IPOtherSettings: 8, TTSSettings: 28,
         PlayoutStatistics: 96, DeviceListEntry: 464}
assert all(ctypes.sizeof(kind) == size for kind, size in SIZES.items())

# Records that are set by a pointer and read through a pointer into the library.
GROUPS = (IPPlayParams, ProtocolHeadersSettings, EthernetHeaderSettings, IPHeaderSettings,
          IPv6HeaderSettings, UDPHeaderSettings, RTPHeaderSettings, ProtocolHeadersIncrements,
          EthernetHeaderIncrements, IPHeaderIncrements, IPv6HeaderIncrements, UDPHeaderIncrements,
          RTPHeaderIncrements, VLANHeaderIncrements, ErrorInsertion)

FUNCTIONS = {  # name: (result, arguments)
    "SetDestinationMacAddress": (None, [c_void_p]),
    "SetVLANIdentifierIncrement": (None, [c_uint16]), "GetVLANIdentifierIncrement": (c_uint32, []),
    "SetTSPacketSize": (c_int32, [c_uint32]),
    "SetConfigurationName": (None, [c_char_p]), "GetConfigurationName": (POINTER(IPPlayParams), []),
    "SetDeviceName": (None, [c_char_p]), "GetDeviceName": (c_char_p, []),
    "GetDestinationMacAddress": (POINTER(ProtocolHeadersSettings), []),
    "GetDestinationMacAddressIncrement": (POINTER(ProtocolHeadersIncrements), []),
    "SetIPEnabled": (None, [c_uint32]), "IsIPEnabled": (c_uint32, []),
    "SetParametricSettings": (None, [ParametricSettings]),
    "GetParametricSettings": (None, [POINTER(ParametricSettings)]),
    "SetTTSSettings": (None, [TTSSettings]), "GetTTSSettings": (None, [POINTER(TTSSettings)]),
    "SetIPOtherSettings": (None, [c_uint32, c_uint32]),
    "GetIPOtherSettings": (None, [POINTER(IPOtherSettings)]),
    "InitIpPlayout": (c_int32, []), "CleanupIpPlayout": (c_int32, []),
    "IPStart": (c_int32, []), "IPStop": (None, []), "IPStopImmediate": (None, []),
    "IPWrite": (c_int32, [c_void_p, c_uint16]), "IPWriteTerminate": (c_int32, []),
    "IPPause": (c_int32, [c_uint32]), "IsPlayoutComplete": (c_int32, []),
    "RegisterForIPPlayoutCompletion": (c_int32, [POINTER(c_ssize_t)]),
    "GetIPStopEvent": (c_ssize_t, []),
    "GetPlayoutStatistics": (c_int32, [POINTER(PlayoutStatistics)]),
    "GetErrorInsertionStatistics": (c_int32, []), "ClearStatistics": (None, []),
    "GetTSStats": (c_void_p, []), "GetStats": (c_void_p, []), "GetIPStats": (c_void_p, []),
    "GetMaxIPMTU": (c_uint32, [c_uint32, c_uint32]), "GetTotalLength": (c_uint32, []),
    "GetIpv6PayloadLength": (c_uint32, []), "GetLength": (c_uint32, []),
    "GetStreamReplicationCount": (c_int32, [POINTER(c_uint32)]),
    "GeneratePacketLoss": (c_int32, []), "GenerateSequenceError": (c_int32, []),
    "GenerateIPChecksumError": (c_int32, []), "GenerateUDPChecksumError": (c_int32, []),
    "CreateListOfDevices": (c_int32, []), "DeleteListOfDevices": (c_int32, []),
    "GetListOfDevices": (POINTER(DeviceListEntry), [POINTER(c_int32)]),
    "GetMacAddressForIP": (c_int32, [c_int32, c_void_p, POINTER(c_void_p), c_int32]),
    "GetHostIPAddress": (c_int32, [POINTER(c_void_p)]),
    "_Z17GetIpAddressBytesPcPh": (c_int32, [c_char_p, c_char_p]),  # the one C++ symbol
}


def signatures():
    for kind, names in SINGLE.items():
        for name in names.split():
            yield "Set" + name, None, [kind]
            yield "Get" + name, kind, []
    for name, kind in SETTER_ONLY.items():
        yield "Set" + name, None, [kind]
    for name in ADDRESSES:
        yield "Set" + name, None, [c_void_p]
        if not name.endswith("IPv6"):
            yield "Get" + name, c_void_p, []
    for kind in GROUPS:
        yield "Set" + kind.__name__, None, [POINTER(kind)]
        yield "Get" + kind.__name__, POINTER(kind), []
    for name, (result, arguments) in FUNCTIONS.items():
        yield name, result, arguments


class Library:
    """The loaded library; its exported functions are attributes of the same names."""
    FAILED = -800
    LARGEST_WRITE = 65535 * 4

    def __init__(self, path):
        self._dll = ctypes.CDLL(path)
        for name, result, arguments in signatures():
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
            if hasattr(self, "Set" + name):
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
        values = PlayoutStatistics()
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
