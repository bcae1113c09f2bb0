// SPDX-License-Identifier: MIT
// The records that cross the interface. Included by ipplayout.h, which states the conventions.
//
// Fields stand in the order given, each aligned to its own size, without packing; a record is
// copied whole, its padding included. Unless a line says otherwise a flag is on when it is 1 and
// off for any other value, and header fields keep the bits that the wire has room for.
#pragma once

#include <stdint.h>

// Longest text of a name field plus its NUL.
enum { IPPLAYOUT_NAME_SIZE = 200 };

// ---- Names of the values of fields that have a few only ----

enum { IPPLAYOUT_OFF = 0, IPPLAYOUT_ON = 1 };                         // flags
enum { IPPLAYOUT_IPV4 = 0, IPPLAYOUT_IPV6 = 1 };                      // IPLayerVersion
enum { IPPLAYOUT_UDP = 0, IPPLAYOUT_RTP = 1 };                        // ProtocolMode
enum { IPPLAYOUT_SIZE_BYTES = 0, IPPLAYOUT_SIZE_TS_PACKETS = 1 };     // PacketSizeMode
enum { IPPLAYOUT_DONT_FRAGMENT = 0, IPPLAYOUT_MAY_FRAGMENT = 1 };     // IPFragmentation
enum { IPPLAYOUT_CHECKSUM_IP = 0, IPPLAYOUT_CHECKSUM_UDP = 1 };       // ChecksumErrorType
enum { IPPLAYOUT_BURST_BY_PERIOD = 0, IPPLAYOUT_BURST_BY_SIZE = 1 };  // BurstValueType
enum {                                                                // JitterDistributionType
  IPPLAYOUT_JITTER_SQUARE = 0,
  IPPLAYOUT_JITTER_GAUSSIAN = 1,
  IPPLAYOUT_JITTER_SQUARED_DIFFERENCE = 2,
  IPPLAYOUT_JITTER_SINE = 3,
};
enum {  // PlayerThreadPriority
  IPPLAYOUT_PRIORITY_IDLE = 0,
  IPPLAYOUT_PRIORITY_BELOW_NORMAL = 1,
  IPPLAYOUT_PRIORITY_NORMAL = 2,
  IPPLAYOUT_PRIORITY_ABOVE_NORMAL = 3,
  IPPLAYOUT_PRIORITY_HIGHEST = 4,
  IPPLAYOUT_PRIORITY_TIME_CRITICAL = 5,
};

// ---- Header fields of every layer ----

// Ethernet II (IEEE 802.3). Addresses in network order, as everywhere.
typedef struct EthernetHeaderSettings {
  uint8_t DestinationMacAddress[6];
  uint8_t SourceMacAddress[6];
  // EtherType of the payload: 0x0800 for IPv4, 0x86DD for IPv6. Stands inside the tag when there
  // is one.
  uint32_t EProtocol;
} EthernetHeaderSettings;

// IPv4 (RFC 791). Total length, fragment fields and checksum of the frames are computed.
typedef struct IPHeaderSettings {
  uint8_t IPVersion;        // version nibble, 4
  uint8_t TOS;              // type of service / DSCP and ECN
  uint32_t HeaderLength;    // only kept
  uint32_t TotalLength;     // result of the last GetTotalLength; no frame is built from it
  uint8_t Flags;            // only kept; don't-fragment is set when IPFragmentation is 0
  uint32_t TTL;             // hops, 0 to 255
  uint32_t Identification;  // of the first datagram, 0 to 65535; each datagram adds one
  uint32_t FragmentOffset;  // only kept
  // Protocol number, 17 for UDP. 2 adds the router alert option (RFC 2113): a 24-byte header.
  uint32_t IPProtocol;
  uint8_t SourceIP[4];
  uint32_t Checksum;  // only kept
  uint8_t DestinationIP[4];
} IPHeaderSettings;

// IPv6 (RFC 8200).
typedef struct IPv6HeaderSettings {
  uint8_t IPv6Version;         // version nibble, 6
  uint8_t TrafficClass;        // DSCP and ECN
  uint32_t FlowLabel;          // 20 bits
  uint32_t Ipv6PayloadLength;  // result of the last GetIpv6PayloadLength; no frame is built from it
  uint8_t NextHeader;          // 17 for UDP
  uint8_t HopLimit;
  uint8_t SourceIPv6[16];
  uint8_t DestinationIPv6[16];
} IPv6HeaderSettings;

// UDP (RFC 768). Ports 0 to 65535. The checksum is always computed.
typedef struct UDPHeaderSettings {
  uint32_t SourcePort;
  uint32_t DestinationPort;
  uint32_t Length;  // result of the last GetLength; no frame is built from it
} UDPHeaderSettings;

// RTP (RFC 3550). The time stamp of the frames follows the bit rate on a 90 kHz clock.
typedef struct RTPHeaderSettings {
  uint8_t RTPVersion;  // 2
  int32_t Extension;   // above 0: the first header byte is 0x80 whatever RTPVersion says
  uint32_t Marker;     // only kept
  // 1: each start draws the first sequence number, 0 to 32767, instead of using SequenceNumber.
  uint32_t RandomSequenceNumber;
  uint32_t SequenceNumber;  // of the first datagram, 0 to 65535
  uint32_t Padding;         // only kept
  uint32_t CSRCCount;       // only kept
  uint32_t PayloadType;     // 33 for a transport stream (RFC 3551); 128 and up set the marker bit
  uint32_t TimeStamp;       // only kept
  uint32_t RandomSSRC;      // 1: each start draws the SSRC, 0 to 32767, instead of using SSRC
  uint32_t SSRC;
} RTPHeaderSettings;

typedef struct ProtocolHeadersSettings {
  struct EthernetHeaderSettings EthernetHeaderSettings;
  uint32_t VLANEnabled;       // 1 puts a tag (IEEE 802.1Q) behind the addresses
  uint32_t TPID;              // EtherType in front of the tag: 0x8100, or 0x88A8 (IEEE 802.1ad)
  uint8_t VLANPriorityLevel;  // priority code point, 0 to 7
  uint32_t CFI;               // canonical format / drop eligible bit
  uint32_t VID;               // VLAN identifier, 0 to 4095
  struct IPHeaderSettings IPHeaderSettings;
  struct IPv6HeaderSettings IPv6HeaderSettings;
  struct UDPHeaderSettings UDPHeaderSettings;
  struct RTPHeaderSettings RTPHeaderSettings;
} ProtocolHeadersSettings;

// ---- What each replicated copy of a datagram adds to the header fields of the copy before it ----
//
// The sums wrap at the width of the wire field; addresses are added as big-endian numbers with
// carry. Without replication the increments have no effect.

typedef struct EthernetHeaderIncrements {
  uint8_t DestinationMacAddressIncrement[6];
  uint8_t SourceMacAddressIncrement[6];
  uint32_t EProtocolIncrement;
} EthernetHeaderIncrements;

typedef struct IPHeaderIncrements {
  uint8_t TOSIncrement;
  uint32_t TTLIncrement;
  uint32_t IPProtocolIncrement;
  uint8_t SourceIPIncrement[4];
  uint8_t DestinationIPIncrement[4];
} IPHeaderIncrements;

typedef struct IPv6HeaderIncrements {
  uint8_t TrafficClassIncrement;
  uint32_t FlowLabelIncrement;
  uint8_t NextHeaderIncrement;
  uint8_t HopLimitIncrement;
  uint8_t SourceIPv6AddressIncrement[16];
  uint8_t DestinationIPv6AddressIncrement[16];
} IPv6HeaderIncrements;

typedef struct UDPHeaderIncrements {
  uint32_t SourcePortIncrement;
  uint32_t DestinationPortIncrement;
} UDPHeaderIncrements;

typedef struct RTPHeaderIncrements {
  uint32_t PayloadTypeIncrement;
  uint32_t SSRCIncrement;
} RTPHeaderIncrements;

typedef struct VLANHeaderIncrements {
  uint32_t VLANIdentifierIncrement;
} VLANHeaderIncrements;

typedef struct ProtocolHeadersIncrements {
  struct EthernetHeaderIncrements EthernetHeaderIncrements;
  struct IPHeaderIncrements IPHeaderIncrements;
  struct IPv6HeaderIncrements IPv6HeaderIncrements;
  struct UDPHeaderIncrements UDPHeaderIncrements;
  struct RTPHeaderIncrements RTPHeaderIncrements;
  struct VLANHeaderIncrements VLANHeaderIncrements;
} ProtocolHeadersIncrements;

// ---- The playout ----

typedef struct IPPlayParams {
  char ConfigurationName[IPPLAYOUT_NAME_SIZE];  // a label of the host's; only kept
  uint32_t IPLayerVersion;  // IPPLAYOUT_IPV4 or IPPLAYOUT_IPV6; IPStart refuses other values
  char DeviceName[IPPLAYOUT_NAME_SIZE];  // a label of the adapter; DeviceIndex chooses it
  uint32_t DeviceIndex;                  // position of the adapter in the array of GetListOfDevices
  uint32_t ProtocolMode;    // IPPLAYOUT_UDP or IPPLAYOUT_RTP; IPStart refuses other values
  uint32_t BroadcastType;   // only kept
  uint32_t PacketSizeMode;  // IPPLAYOUT_SIZE_...: by IPPacketSize or by TSPacketCount
  // Bytes of a frame from the Ethernet header to the end of the payload, VLAN tag included and
  // frame check sequence excluded. Larger than GetMaxIPMTU allows it is cut to that.
  uint32_t IPPacketSize;
  uint32_t TSPacketCount;  // transport stream packets per datagram
  // 1: a datagram may end inside a transport stream packet. Otherwise its payload is cut to whole
  // packets. Counts as 1 when TSPacketSize is 0.
  uint32_t TSFragmentation;
  // IPPLAYOUT_MAY_FRAGMENT: IPv4 frames up to 16128 bytes, else up to 1500.
  // IPPLAYOUT_DONT_FRAGMENT also sets the don't-fragment bit.
  uint32_t IPFragmentation;
  // Marks of the host's own beside the address fields; only kept.
  uint32_t SrcAddrAdvansedFlag;
  uint32_t DstAddrAdvansedFlag;
  uint32_t SrcIpv6AddrAdvansedFlag;
  uint32_t DstIpv6AddrAdvansedFlag;
  uint32_t SrcMacAddrAdvansedFlag;
  uint32_t DstMacAddrAdvansedFlag;
  uint32_t SrcPortAdvansedFlag;
  uint32_t DstPortAdvansedFlag;
  uint32_t VLANIdAdvansedFlag;
  uint32_t EtherProtocolAdvansedFlag;
  struct ProtocolHeadersSettings ProtocolHeadersSettings;
  struct ProtocolHeadersIncrements ProtocolHeadersIncrements;
  // Extra copies of the stream: each datagram leaves ReplicationCount + 1 times. 0 or less: once.
  int32_t ReplicationCount;
} IPPlayParams;

// Deliberate errors by schedule. Of each ...Range consecutive datagrams Num... are damaged: the
// first ones, or random ones with RandomizeErrors. A range of 0 damages nothing; a number above
// its range damages all. The five switches are on when not 0.
typedef struct ErrorInsertion {
  uint32_t ErrInsertionEnable;  // main switch of the schedules; Generate... works without it
  uint32_t PacketLossEnabled;   // datagrams that never leave; the next one leaves in their time
  uint32_t NumPacketLoss;
  uint32_t PacketLossRange;
  uint32_t SequenceErrorEnabled;  // frames that leave late; RTP only
  uint32_t NumSequenceError;
  uint32_t SequenceErrorRange;
  // How many later datagrams overtake a late one. Up to 256 MiB of late frames wait at a time; a
  // datagram that finds no room leaves in its turn and is not counted as late.
  uint32_t SequenceErrorDistance;
  uint32_t ChecksumErrorEnabled;  // checksums one above the right value (modulo 65536)
  uint32_t ChecksumErrorType;     // IPPLAYOUT_CHECKSUM_...; nothing for other values
  uint32_t NumChecksumError;
  uint32_t ChecksumErrorRange;
  uint32_t RandomizeErrors;
} ErrorInsertion;

// Bursts and jitter of the gaps between frames.
typedef struct ParametricSettings {
  uint32_t BurstMode;       // 1: datagrams leave back to back in bursts at the same mean bit rate
  uint32_t BurstValueType;  // IPPLAYOUT_BURST_...; other values keep the last run's
  uint32_t BurstPeriod;     // milliseconds of stream
  uint32_t BurstSize;       // frames, those of all copies
  uint32_t LowJitterModeEnabled;  // only kept
  uint32_t JitterEnabled;
  // Percent of the gap; of the square pattern, peak to peak in microseconds.
  float JitterPeriod;
  uint32_t ParametricReserved;
  // IPPLAYOUT_JITTER_...; no jitter for other values.
  uint32_t JitterDistributionType;
} ParametricSettings;

typedef struct IPOtherSettings {
  // Priority of the thread that builds frames: IPPLAYOUT_PRIORITY_... Other values keep the current
  // one (above normal at first). Applied as far as the system allows the process.
  uint32_t PlayerThreadPriority;
  uint32_t PlayerProcessPriority;  // only kept
} IPOtherSettings;

// Input of 192-byte time-stamped packets. All but TTSEnabled are only kept.
typedef struct TTSSettings {
  uint32_t TTSEnabled;  // 1: packets of the input have 192 bytes, unless TSPacketSize is 0
  uint32_t TTSPreserveFileTimestamps;
  uint32_t TTSJitterEnable;
  uint32_t TTSJitterPeriod;
  uint32_t TTSJitterAmplitude;
  uint32_t TTSJitterPulseWidth;
  uint32_t TTSJitterPatternType;
} TTSSettings;

// ---- What a playout reports ----

// Counters of the current or last playout. Copies of a datagram count once.
typedef struct PlayoutStatistics {
  uint64_t DatagramsSent;      // lost and delayed ones included
  uint64_t TSPacketsSent;      // whole packets so far; 0 when TSPacketSize is 0
  uint64_t BytesSent;          // Ethernet header to end of payload
  uint64_t TSBytesSent;        // payload, counted as TSPacketSize bytes for each packet
  uint64_t TSPacketSize;       // as set; 0 when the input has no packets
  uint64_t DatagramSize;       // bytes of a full frame, Ethernet header to end of payload
  uint64_t LostPackets;        // datagrams dropped on purpose
  uint64_t SequenceErrors;     // datagrams sent late on purpose
  uint64_t IPChecksumErrors;   // wrong on purpose
  uint64_t UDPChecksumErrors;  // wrong on purpose
  double Jitter;               // seconds; running estimate over the planned send times (RFC 3550)
  int64_t LostBytes;           // payload of the dropped datagrams
} PlayoutStatistics;

// Reserved; all zero.
typedef struct TSStatistics {
  uint64_t Reserved[4];
} TSStatistics;

// Reserved; all zero.
typedef struct IPStatistics {
  uint64_t Reserved[4];
} IPStatistics;

// One adapter. The texts belong to the library and live until DeleteListOfDevices. The record has
// the pointers of the platform: 464 bytes where they have 8, 436 where they have 4.
typedef struct DeviceListEntry {
  int32_t Index;                          // position in the system's own list, with gaps
  char Name[IPPLAYOUT_NAME_SIZE];         // "rpcap://" and the interface's name
  char Description[IPPLAYOUT_NAME_SIZE];  // for people
  const char* const* IPv4Addresses;       // dotted decimal
  int32_t IPv4AddressCount;
  const char* const* IPv6Addresses;  // RFC 5952 text without the scope
  int32_t IPv6AddressCount;
  const char* const* IPv4Netmasks;  // dotted decimal, in the order of the addresses
  int32_t IPv4NetmaskCount;
  uint8_t MacAddress[6];  // all zero when it cannot be read
} DeviceListEntry;
