# SPDX-License-Identifier: MIT
"""What must be on the wire: the frames of a playout, worked out from its settings and its bytes.

Nothing here comes from the library. Settings are a dictionary by accessor name; a missing one is 0.
Random choices (error placement, SSRC, sequence number) are outside the model.
"""
import struct
from collections import Counter

ADDRESS_WIDTH = {"SourceIP": 4, "DestinationIP": 4, "SourceIPv6": 16, "DestinationIPv6": 16,
                 "SourceMacAddress": 6, "DestinationMacAddress": 6}
INCREMENT = {"SourceIPv6": "SourceIPv6AddressIncrement",
             "DestinationIPv6": "DestinationIPv6AddressIncrement", "VID": "VLANIdentifierIncrement"}
IPV4, IPV6 = 0, 1
UDP, RTP = 0, 1
UDP_PROTOCOL = 17
ROUTER_ALERT = bytes((0x94, 0x04, 0x00, 0x00))  # RFC 2113


def ones_complement_sum(data):
    """RFC 1071, the plain way: 16-bit big-endian words, an odd last byte padded with zero."""
    total = 0
    for i in range(0, len(data), 2):
        total += data[i] << 8 | (data[i + 1] if i + 1 < len(data) else 0)
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return total


class RtpClock:
    """90 kHz ticks per packet from the nominal packet size, fractions carried along."""

    def __init__(self, packet_bytes, bit_rate):
        exact = (packet_bytes * 8 & 0xFFFFFFFF) / bit_rate * 90000
        self.whole, self.fraction = int(exact), exact - int(exact)
        self.now, self.carry = 0, 0.0

    def tick(self):
        now = self.now
        self.carry += self.fraction
        step = self.whole + (1 if self.carry >= 1.0 else 0)
        self.carry -= step - self.whole
        self.now = (now + step) & 0xFFFFFFFF
        return now


class Model:
    def __init__(self, settings):
        self.settings = settings
        self.vlan = self.value("VLANEnabled") == 1
        self.ipv4 = self.value("IPLayerVersion") == IPV4
        self.rtp = self.value("ProtocolMode") == RTP
        self.copies = max(0, self.value("ReplicationCount")) + 1
        self.ip_header = (24 if self.value("IPProtocol") == 2 else 20) if self.ipv4 else 40
        self.headers = 14 + 4 * self.vlan + self.ip_header + 8 + 12 * self.rtp
        self.payload_size = self.work_out_payload_size()
        self.datagram_size = self.headers + self.payload_size

    def value(self, name):
        return self.settings.get(name, bytes(ADDRESS_WIDTH[name]) if name in ADDRESS_WIDTH else 0)

    @property
    def ts_unit(self):
        size = self.value("TSPacketSize")
        return 192 if size and self.value("TTSEnabled") == 1 else size

    def work_out_payload_size(self):
        mode, raw = self.value("PacketSizeMode"), self.ts_unit == 0
        if raw or mode == 0:
            size = self.value("IPPacketSize") - self.headers
        else:
            size = self.value("TSPacketCount") * self.ts_unit if mode == 1 else 0
        limit = 1500 if self.ipv4 and self.value("IPFragmentation") != 1 else 16128
        size = min(size, limit - self.headers)
        if not raw and self.value("TSFragmentation") != 1:
            size -= size % self.ts_unit
        return size

    def field(self, name, copy, mask):
        """A header field of one copy, cut to the width that the wire has for it."""
        increment = self.settings.get(INCREMENT.get(name, name + "Increment"), 0)
        return (self.value(name) + copy * increment) & mask

    def address(self, name, copy):
        width = ADDRESS_WIDTH[name]
        increment = self.settings.get(INCREMENT.get(name, name + "Increment"), bytes(width))
        number = int.from_bytes(self.value(name), "big") + copy * int.from_bytes(increment, "big")
        return (number % (1 << 8 * width)).to_bytes(width, "big")

    def ethernet(self, copy):
        ethertype = self.field("EProtocol", copy, 0xFFFF)
        header = self.address("DestinationMacAddress", copy) + self.address("SourceMacAddress", copy)
        if self.vlan:
            tci = (self.field("VID", copy, 0xFFF) | (0x1000 if self.value("CFI") == 1 else 0)
                   | (self.value("VLANPriorityLevel") & 7) << 13)
            header += struct.pack(">HH", self.value("TPID") & 0xFFFF, tci)
        return header + struct.pack(">H", ethertype)

    def ip(self, index, copy, length, damage):
        return (self.ip_version_4(index, copy, length, damage) if self.ipv4
                else self.ip_version_6(copy, length))

    def ip_version_4(self, index, copy, length, damage):
        def header(checksum):
            return struct.pack(
                ">BBHHBBBBH4s4s", (self.value("IPVersion") * 16 + self.ip_header // 4) & 0xFF,
                self.field("TOS", copy, 0xFF), self.ip_header + length,
                (self.value("Identification") + index) & 0xFFFF,
                0x40 if self.value("IPFragmentation") == 0 else 0, 0,
                self.field("TTL", copy, 0xFF), self.field("IPProtocol", copy, 0xFF), checksum,
                self.address("SourceIP", copy), self.address("DestinationIP", copy),
            ) + (ROUTER_ALERT if self.ip_header == 24 else b"")
        return header((0xFFFF - ones_complement_sum(header(0)) + damage) & 0xFFFF)

    def ip_version_6(self, copy, length):
        first_word = ((self.value("IPv6Version") & 0xF) << 28
                      | self.field("TrafficClass", copy, 0xFF) << 20
                      | self.field("FlowLabel", copy, 0xFFFFF))
        return struct.pack(">IHBB", first_word, length, self.field("NextHeader", copy, 0xFF),
                           self.field("HopLimit", copy, 0xFF)) \
            + self.address("SourceIPv6", copy) + self.address("DestinationIPv6", copy)

    def udp(self, copy, content, damage):
        length = 8 + len(content)
        ports = struct.pack(">HH", self.field("SourcePort", copy, 0xFFFF),
                            self.field("DestinationPort", copy, 0xFFFF))
        family = "IP" if self.ipv4 else "IPv6"
        pseudo = self.address("Source" + family, copy) + self.address("Destination" + family, copy)
        pseudo += (struct.pack(">BBH", 0, UDP_PROTOCOL, length) if self.ipv4
                   else struct.pack(">IHBB", length, 0, 0, UDP_PROTOCOL))
        datagram = ports + struct.pack(">HH", length, 0) + content
        checksum = 0xFFFF - ones_complement_sum(pseudo + datagram)
        checksum = ((checksum or 0xFFFF) + damage) & 0xFFFF
        return ports + struct.pack(">HH", length, checksum) + content

    def rtp_header(self, index, copy, timestamp):
        first = 0x80 if self.value("Extension") > 0 else self.value("RTPVersion") * 64 & 0xFF
        payload_type = self.field("PayloadType", copy, 0xFF if copy == 0 else 0x7F)
        return struct.pack(">BBHII", first, payload_type,
                           (self.value("SequenceNumber") + index) & 0xFFFF, timestamp,
                           self.field("SSRC", copy, 0xFFFFFFFF))

    def frame(self, index, copy, payload, timestamp=0, ip_damage=0, udp_damage=0):
        content = (self.rtp_header(index, copy, timestamp) if self.rtp else b"") + payload
        datagram = self.udp(copy, content, udp_damage)
        return self.ethernet(copy) + self.ip(index, copy, len(datagram), ip_damage) + datagram

    def scheduled(self, kind, index):
        """Whether a schedule without randomness damages the datagram: the first ones of each range."""
        if self.value("ErrInsertionEnable") == 0 or self.value(kind + "Enabled") == 0:
            return False
        reach, count = self.value(kind + "Range"), self.value("Num" + kind)
        return reach != 0 and count < 1 << 31 and index % reach < count  # the count is a signed number

    def payloads(self, data):
        return [data[i:i + self.payload_size] for i in range(0, len(data), self.payload_size)]

    def play(self, data, requests=None):
        """The frames in wire order and the statistics of a playout.

        requests: {datagram index: set of "loss", "ip", "udp"} for errors asked for one by one.
        """
        requests = requests or {}
        clock = self.rtp and RtpClock(self.value("IPPacketSize"), int(self.value("IPBitRate") * 1e6))
        wire, held, count = [], {}, Counter()
        for index, payload in enumerate(self.payloads(data)):
            asked = requests.get(index, ())
            checksum = self.scheduled("ChecksumError", index)
            ip_damage = self.ipv4 and ("ip" in asked
                                       or checksum and self.value("ChecksumErrorType") == 0)
            udp_damage = "udp" in asked or checksum and self.value("ChecksumErrorType") == 1
            lost = "loss" in asked or self.scheduled("PacketLoss", index)
            late = self.rtp and not lost and self.scheduled("SequenceError", index)
            for copy in range(self.copies):
                frame = self.frame(index, copy, payload, clock.tick() if clock else 0,
                                   int(ip_damage), int(udp_damage))
                if (index, copy) in held:
                    wire.append(held.pop((index, copy)))
                if late:
                    due = index + self.value("SequenceErrorDistance") + 1
                    held.setdefault((due, copy), frame)
                elif not lost:
                    wire.append(frame)
            count["DatagramsSent"] += 1
            count["BytesSent"] += self.headers + len(payload)
            count["PayloadBytes"] += len(payload)
            count["LostPackets"] += lost
            count["LostBytes"] += lost and len(payload)
            count["SequenceErrors"] += late
            count["IPChecksumErrors"] += ip_damage
            count["UDPChecksumErrors"] += udp_damage
        return wire, self.statistics(count)

    def statistics(self, count):
        payload, unit, size = count["PayloadBytes"], self.ts_unit, self.value("TSPacketSize")
        played = count["DatagramsSent"] > 0
        names = ("DatagramsSent", "BytesSent", "LostPackets", "LostBytes", "SequenceErrors",
                 "IPChecksumErrors", "UDPChecksumErrors")
        return {**{name: int(count[name]) for name in names},
                "TSPacketsSent": payload // unit if unit else 0,
                "TSBytesSent": payload * size // unit if unit else payload,
                "TSPacketSize": size if played else 0,
                "DatagramSize": self.datagram_size if played else 0}
