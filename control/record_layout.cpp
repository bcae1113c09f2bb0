// SPDX-License-Identifier: MIT
// The place of each field in its record, which hosts rely on as they do on its size (layout.h).
#include <cstddef>
#include <cstdint>

#include "ipplayout/ipplayout.h"

#define IPPLAYOUT_AT(record, field, offset) \
  static_assert(offsetof(record, field) == (offset), "place of " #field " in " #record)

IPPLAYOUT_AT(EthernetHeaderSettings, DestinationMacAddress, 0);
IPPLAYOUT_AT(EthernetHeaderSettings, SourceMacAddress, 6);
IPPLAYOUT_AT(EthernetHeaderSettings, EProtocol, 12);

IPPLAYOUT_AT(IPHeaderSettings, IPVersion, 0);
IPPLAYOUT_AT(IPHeaderSettings, TOS, 1);
IPPLAYOUT_AT(IPHeaderSettings, HeaderLength, 4);
IPPLAYOUT_AT(IPHeaderSettings, TotalLength, 8);
IPPLAYOUT_AT(IPHeaderSettings, Flags, 12);
IPPLAYOUT_AT(IPHeaderSettings, TTL, 16);
IPPLAYOUT_AT(IPHeaderSettings, Identification, 20);
IPPLAYOUT_AT(IPHeaderSettings, FragmentOffset, 24);
IPPLAYOUT_AT(IPHeaderSettings, IPProtocol, 28);
IPPLAYOUT_AT(IPHeaderSettings, SourceIP, 32);
IPPLAYOUT_AT(IPHeaderSettings, Checksum, 36);
IPPLAYOUT_AT(IPHeaderSettings, DestinationIP, 40);

IPPLAYOUT_AT(IPv6HeaderSettings, IPv6Version, 0);
IPPLAYOUT_AT(IPv6HeaderSettings, TrafficClass, 1);
IPPLAYOUT_AT(IPv6HeaderSettings, FlowLabel, 4);
IPPLAYOUT_AT(IPv6HeaderSettings, Ipv6PayloadLength, 8);
IPPLAYOUT_AT(IPv6HeaderSettings, NextHeader, 12);
IPPLAYOUT_AT(IPv6HeaderSettings, HopLimit, 13);
IPPLAYOUT_AT(IPv6HeaderSettings, SourceIPv6, 14);
IPPLAYOUT_AT(IPv6HeaderSettings, DestinationIPv6, 30);

IPPLAYOUT_AT(UDPHeaderSettings, SourcePort, 0);
IPPLAYOUT_AT(UDPHeaderSettings, DestinationPort, 4);
IPPLAYOUT_AT(UDPHeaderSettings, Length, 8);

IPPLAYOUT_AT(RTPHeaderSettings, RTPVersion, 0);
IPPLAYOUT_AT(RTPHeaderSettings, Extension, 4);
IPPLAYOUT_AT(RTPHeaderSettings, Marker, 8);
IPPLAYOUT_AT(RTPHeaderSettings, RandomSequenceNumber, 12);
IPPLAYOUT_AT(RTPHeaderSettings, SequenceNumber, 16);
IPPLAYOUT_AT(RTPHeaderSettings, Padding, 20);
IPPLAYOUT_AT(RTPHeaderSettings, CSRCCount, 24);
IPPLAYOUT_AT(RTPHeaderSettings, PayloadType, 28);
IPPLAYOUT_AT(RTPHeaderSettings, TimeStamp, 32);
IPPLAYOUT_AT(RTPHeaderSettings, RandomSSRC, 36);
IPPLAYOUT_AT(RTPHeaderSettings, SSRC, 40);

IPPLAYOUT_AT(ProtocolHeadersSettings, EthernetHeaderSettings, 0);
IPPLAYOUT_AT(ProtocolHeadersSettings, VLANEnabled, 16);
IPPLAYOUT_AT(ProtocolHeadersSettings, TPID, 20);
IPPLAYOUT_AT(ProtocolHeadersSettings, VLANPriorityLevel, 24);
IPPLAYOUT_AT(ProtocolHeadersSettings, CFI, 28);
IPPLAYOUT_AT(ProtocolHeadersSettings, VID, 32);
IPPLAYOUT_AT(ProtocolHeadersSettings, IPHeaderSettings, 36);
IPPLAYOUT_AT(ProtocolHeadersSettings, IPv6HeaderSettings, 80);
IPPLAYOUT_AT(ProtocolHeadersSettings, UDPHeaderSettings, 128);
IPPLAYOUT_AT(ProtocolHeadersSettings, RTPHeaderSettings, 140);

IPPLAYOUT_AT(EthernetHeaderIncrements, DestinationMacAddressIncrement, 0);
IPPLAYOUT_AT(EthernetHeaderIncrements, SourceMacAddressIncrement, 6);
IPPLAYOUT_AT(EthernetHeaderIncrements, EProtocolIncrement, 12);

IPPLAYOUT_AT(IPHeaderIncrements, TOSIncrement, 0);
IPPLAYOUT_AT(IPHeaderIncrements, TTLIncrement, 4);
IPPLAYOUT_AT(IPHeaderIncrements, IPProtocolIncrement, 8);
IPPLAYOUT_AT(IPHeaderIncrements, SourceIPIncrement, 12);
IPPLAYOUT_AT(IPHeaderIncrements, DestinationIPIncrement, 16);

IPPLAYOUT_AT(IPv6HeaderIncrements, TrafficClassIncrement, 0);
IPPLAYOUT_AT(IPv6HeaderIncrements, FlowLabelIncrement, 4);
IPPLAYOUT_AT(IPv6HeaderIncrements, NextHeaderIncrement, 8);
IPPLAYOUT_AT(IPv6HeaderIncrements, HopLimitIncrement, 9);
IPPLAYOUT_AT(IPv6HeaderIncrements, SourceIPv6AddressIncrement, 10);
IPPLAYOUT_AT(IPv6HeaderIncrements, DestinationIPv6AddressIncrement, 26);

IPPLAYOUT_AT(UDPHeaderIncrements, SourcePortIncrement, 0);
IPPLAYOUT_AT(UDPHeaderIncrements, DestinationPortIncrement, 4);

IPPLAYOUT_AT(RTPHeaderIncrements, PayloadTypeIncrement, 0);
IPPLAYOUT_AT(RTPHeaderIncrements, SSRCIncrement, 4);

IPPLAYOUT_AT(VLANHeaderIncrements, VLANIdentifierIncrement, 0);

IPPLAYOUT_AT(ProtocolHeadersIncrements, EthernetHeaderIncrements, 0);
IPPLAYOUT_AT(ProtocolHeadersIncrements, IPHeaderIncrements, 16);
IPPLAYOUT_AT(ProtocolHeadersIncrements, IPv6HeaderIncrements, 36);
IPPLAYOUT_AT(ProtocolHeadersIncrements, UDPHeaderIncrements, 80);
IPPLAYOUT_AT(ProtocolHeadersIncrements, RTPHeaderIncrements, 88);
IPPLAYOUT_AT(ProtocolHeadersIncrements, VLANHeaderIncrements, 96);

IPPLAYOUT_AT(IPPlayParams, ConfigurationName, 0);
IPPLAYOUT_AT(IPPlayParams, IPLayerVersion, 200);
IPPLAYOUT_AT(IPPlayParams, DeviceName, 204);
IPPLAYOUT_AT(IPPlayParams, DeviceIndex, 404);
IPPLAYOUT_AT(IPPlayParams, ProtocolMode, 408);
IPPLAYOUT_AT(IPPlayParams, BroadcastType, 412);
IPPLAYOUT_AT(IPPlayParams, PacketSizeMode, 416);
IPPLAYOUT_AT(IPPlayParams, IPPacketSize, 420);
IPPLAYOUT_AT(IPPlayParams, TSPacketCount, 424);
IPPLAYOUT_AT(IPPlayParams, TSFragmentation, 428);
IPPLAYOUT_AT(IPPlayParams, IPFragmentation, 432);
IPPLAYOUT_AT(IPPlayParams, SrcAddrAdvansedFlag, 436);
IPPLAYOUT_AT(IPPlayParams, DstAddrAdvansedFlag, 440);
IPPLAYOUT_AT(IPPlayParams, SrcIpv6AddrAdvansedFlag, 444);
IPPLAYOUT_AT(IPPlayParams, DstIpv6AddrAdvansedFlag, 448);
IPPLAYOUT_AT(IPPlayParams, SrcMacAddrAdvansedFlag, 452);
IPPLAYOUT_AT(IPPlayParams, DstMacAddrAdvansedFlag, 456);
IPPLAYOUT_AT(IPPlayParams, SrcPortAdvansedFlag, 460);
IPPLAYOUT_AT(IPPlayParams, DstPortAdvansedFlag, 464);
IPPLAYOUT_AT(IPPlayParams, VLANIdAdvansedFlag, 468);
IPPLAYOUT_AT(IPPlayParams, EtherProtocolAdvansedFlag, 472);
IPPLAYOUT_AT(IPPlayParams, ProtocolHeadersSettings, 476);
IPPLAYOUT_AT(IPPlayParams, ProtocolHeadersIncrements, 660);
IPPLAYOUT_AT(IPPlayParams, ReplicationCount, 760);

IPPLAYOUT_AT(ErrorInsertion, ErrInsertionEnable, 0);
IPPLAYOUT_AT(ErrorInsertion, PacketLossEnabled, 4);
IPPLAYOUT_AT(ErrorInsertion, NumPacketLoss, 8);
IPPLAYOUT_AT(ErrorInsertion, PacketLossRange, 12);
IPPLAYOUT_AT(ErrorInsertion, SequenceErrorEnabled, 16);
IPPLAYOUT_AT(ErrorInsertion, NumSequenceError, 20);
IPPLAYOUT_AT(ErrorInsertion, SequenceErrorRange, 24);
IPPLAYOUT_AT(ErrorInsertion, SequenceErrorDistance, 28);
IPPLAYOUT_AT(ErrorInsertion, ChecksumErrorEnabled, 32);
IPPLAYOUT_AT(ErrorInsertion, ChecksumErrorType, 36);
IPPLAYOUT_AT(ErrorInsertion, NumChecksumError, 40);
IPPLAYOUT_AT(ErrorInsertion, ChecksumErrorRange, 44);
IPPLAYOUT_AT(ErrorInsertion, RandomizeErrors, 48);

IPPLAYOUT_AT(ParametricSettings, BurstMode, 0);
IPPLAYOUT_AT(ParametricSettings, BurstValueType, 4);
IPPLAYOUT_AT(ParametricSettings, BurstPeriod, 8);
IPPLAYOUT_AT(ParametricSettings, BurstSize, 12);
IPPLAYOUT_AT(ParametricSettings, LowJitterModeEnabled, 16);
IPPLAYOUT_AT(ParametricSettings, JitterEnabled, 20);
IPPLAYOUT_AT(ParametricSettings, JitterPeriod, 24);
IPPLAYOUT_AT(ParametricSettings, ParametricReserved, 28);
IPPLAYOUT_AT(ParametricSettings, JitterDistributionType, 32);

IPPLAYOUT_AT(IPOtherSettings, PlayerThreadPriority, 0);
IPPLAYOUT_AT(IPOtherSettings, PlayerProcessPriority, 4);

IPPLAYOUT_AT(TTSSettings, TTSEnabled, 0);
IPPLAYOUT_AT(TTSSettings, TTSPreserveFileTimestamps, 4);
IPPLAYOUT_AT(TTSSettings, TTSJitterEnable, 8);
IPPLAYOUT_AT(TTSSettings, TTSJitterPeriod, 12);
IPPLAYOUT_AT(TTSSettings, TTSJitterAmplitude, 16);
IPPLAYOUT_AT(TTSSettings, TTSJitterPulseWidth, 20);
IPPLAYOUT_AT(TTSSettings, TTSJitterPatternType, 24);

IPPLAYOUT_AT(PlayoutStatistics, DatagramsSent, 0);
IPPLAYOUT_AT(PlayoutStatistics, TSPacketsSent, 8);
IPPLAYOUT_AT(PlayoutStatistics, BytesSent, 16);
IPPLAYOUT_AT(PlayoutStatistics, TSBytesSent, 24);
IPPLAYOUT_AT(PlayoutStatistics, TSPacketSize, 32);
IPPLAYOUT_AT(PlayoutStatistics, DatagramSize, 40);
IPPLAYOUT_AT(PlayoutStatistics, LostPackets, 48);
IPPLAYOUT_AT(PlayoutStatistics, SequenceErrors, 56);
IPPLAYOUT_AT(PlayoutStatistics, IPChecksumErrors, 64);
IPPLAYOUT_AT(PlayoutStatistics, UDPChecksumErrors, 72);
IPPLAYOUT_AT(PlayoutStatistics, Jitter, 80);
IPPLAYOUT_AT(PlayoutStatistics, LostBytes, 88);

#if UINTPTR_MAX == UINT32_MAX
IPPLAYOUT_AT(DeviceListEntry, IPv4Addresses, 404);
IPPLAYOUT_AT(DeviceListEntry, IPv4AddressCount, 408);
IPPLAYOUT_AT(DeviceListEntry, IPv6Addresses, 412);
IPPLAYOUT_AT(DeviceListEntry, IPv6AddressCount, 416);
IPPLAYOUT_AT(DeviceListEntry, IPv4Netmasks, 420);
IPPLAYOUT_AT(DeviceListEntry, IPv4NetmaskCount, 424);
IPPLAYOUT_AT(DeviceListEntry, MacAddress, 428);
#else
IPPLAYOUT_AT(DeviceListEntry, IPv4Addresses, 408);
IPPLAYOUT_AT(DeviceListEntry, IPv4AddressCount, 416);
IPPLAYOUT_AT(DeviceListEntry, IPv6Addresses, 424);
IPPLAYOUT_AT(DeviceListEntry, IPv6AddressCount, 432);
IPPLAYOUT_AT(DeviceListEntry, IPv4Netmasks, 440);
IPPLAYOUT_AT(DeviceListEntry, IPv4NetmaskCount, 448);
IPPLAYOUT_AT(DeviceListEntry, MacAddress, 452);
#endif
IPPLAYOUT_AT(DeviceListEntry, Index, 0);
IPPLAYOUT_AT(DeviceListEntry, Name, 4);
IPPLAYOUT_AT(DeviceListEntry, Description, 204);
