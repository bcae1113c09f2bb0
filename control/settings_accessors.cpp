// SPDX-License-Identifier: MIT
// Accessors of single settings: one row each, and below the rows those that do more than store.
#include <cstddef>
#include <cstring>

#include "control/settings_store.h"
#include "ipplayout/ipplayout.h"

namespace {

using ipplayout::Settings;

template <std::size_t width>
void CopyAddress(uint8_t (&field)[width], const uint8_t* address) {
  if (address != nullptr) {
    std::memmove(field, address, width);
  }
}

// Cuts what does not fit. The rest of the field becomes zero, so that no older text shows in it.
template <std::size_t size>
void CopyName(char (&field)[size], const char* name) {
  if (name == nullptr) {
    return;
  }
  const std::size_t length = strnlen(name, size - 1);
  std::memmove(field, name, length);
  std::memset(field + length, 0, size - length);
}

}  // namespace

// Each row defines SetName and GetName of the field of that name.
// NOLINTBEGIN(bugprone-macro-parentheses): types and names cannot stand in parentheses.
#define VALUE_SETTER(record, Name)                 \
  void Set##Name(decltype((record)->Name) value) { \
    (record)->Name = value;                        \
  }
#define VALUE_GETTER(record, Name)       \
  decltype((record)->Name) Get##Name() { \
    return (record)->Name;               \
  }
#define VALUE(record, Name)  \
  VALUE_SETTER(record, Name) \
  VALUE_GETTER(record, Name)
#define ADDRESS_SETTER(record, Name)       \
  void Set##Name(const uint8_t* address) { \
    CopyAddress((record)->Name, address);  \
  }
#define ADDRESS_GETTER(record, Name) \
  uint8_t* Get##Name() {             \
    return (record)->Name;           \
  }
#define ADDRESS(record, Name)  \
  ADDRESS_SETTER(record, Name) \
  ADDRESS_GETTER(record, Name)
// NOLINTEND(bugprone-macro-parentheses)

VALUE(&Settings(), PlayFileSizeForIP)
VALUE_GETTER(&Settings(), TSPacketSize)
VALUE(&Settings(), IPBitRate)
VALUE(&Settings(), IPBitRateChosen)
VALUE_SETTER(&Settings(), IPEnabled)

VALUE(GetIPPlayParams(), IPLayerVersion)
VALUE(GetIPPlayParams(), ProtocolMode)
VALUE(GetIPPlayParams(), BroadcastType)
VALUE(GetIPPlayParams(), PacketSizeMode)
VALUE(GetIPPlayParams(), IPPacketSize)
VALUE(GetIPPlayParams(), TSPacketCount)
VALUE(GetIPPlayParams(), TSFragmentation)
VALUE(GetIPPlayParams(), IPFragmentation)
VALUE(GetIPPlayParams(), SrcAddrAdvansedFlag)
VALUE(GetIPPlayParams(), DstAddrAdvansedFlag)
VALUE(GetIPPlayParams(), SrcIpv6AddrAdvansedFlag)
VALUE(GetIPPlayParams(), DstIpv6AddrAdvansedFlag)
VALUE(GetIPPlayParams(), SrcMacAddrAdvansedFlag)
VALUE(GetIPPlayParams(), DstMacAddrAdvansedFlag)
VALUE(GetIPPlayParams(), SrcPortAdvansedFlag)
VALUE(GetIPPlayParams(), DstPortAdvansedFlag)
VALUE(GetIPPlayParams(), VLANIdAdvansedFlag)
VALUE(GetIPPlayParams(), EtherProtocolAdvansedFlag)
VALUE(GetIPPlayParams(), ReplicationCount)

ADDRESS(GetEthernetHeaderSettings(), DestinationMacAddress)
ADDRESS(GetEthernetHeaderSettings(), SourceMacAddress)
VALUE(GetEthernetHeaderSettings(), EProtocol)

VALUE(GetProtocolHeadersSettings(), VLANEnabled)
VALUE(GetProtocolHeadersSettings(), TPID)
VALUE(GetProtocolHeadersSettings(), VLANPriorityLevel)
VALUE(GetProtocolHeadersSettings(), CFI)
VALUE(GetProtocolHeadersSettings(), VID)

VALUE(GetIPHeaderSettings(), IPVersion)
VALUE(GetIPHeaderSettings(), TOS)
VALUE(GetIPHeaderSettings(), HeaderLength)
VALUE_SETTER(GetIPHeaderSettings(), TotalLength)
VALUE(GetIPHeaderSettings(), Flags)
VALUE(GetIPHeaderSettings(), TTL)
VALUE(GetIPHeaderSettings(), Identification)
VALUE(GetIPHeaderSettings(), FragmentOffset)
VALUE(GetIPHeaderSettings(), IPProtocol)
ADDRESS(GetIPHeaderSettings(), SourceIP)
VALUE(GetIPHeaderSettings(), Checksum)
ADDRESS(GetIPHeaderSettings(), DestinationIP)

VALUE_SETTER(GetIPv6HeaderSettings(), TrafficClass)
VALUE_SETTER(GetIPv6HeaderSettings(), FlowLabel)
VALUE_SETTER(GetIPv6HeaderSettings(), NextHeader)
VALUE_SETTER(GetIPv6HeaderSettings(), HopLimit)
ADDRESS_SETTER(GetIPv6HeaderSettings(), SourceIPv6)
ADDRESS_SETTER(GetIPv6HeaderSettings(), DestinationIPv6)

VALUE(GetUDPHeaderSettings(), SourcePort)
VALUE(GetUDPHeaderSettings(), DestinationPort)
VALUE_SETTER(GetUDPHeaderSettings(), Length)

VALUE(GetRTPHeaderSettings(), RTPVersion)
VALUE(GetRTPHeaderSettings(), Extension)
VALUE(GetRTPHeaderSettings(), Marker)
VALUE_GETTER(GetRTPHeaderSettings(), SequenceNumber)
VALUE(GetRTPHeaderSettings(), Padding)
VALUE(GetRTPHeaderSettings(), CSRCCount)
VALUE(GetRTPHeaderSettings(), PayloadType)
VALUE(GetRTPHeaderSettings(), TimeStamp)
VALUE_GETTER(GetRTPHeaderSettings(), SSRC)

ADDRESS(GetEthernetHeaderIncrements(), DestinationMacAddressIncrement)
ADDRESS(GetEthernetHeaderIncrements(), SourceMacAddressIncrement)
VALUE(GetEthernetHeaderIncrements(), EProtocolIncrement)
VALUE(GetIPHeaderIncrements(), TOSIncrement)
VALUE(GetIPHeaderIncrements(), TTLIncrement)
VALUE(GetIPHeaderIncrements(), IPProtocolIncrement)
ADDRESS(GetIPHeaderIncrements(), SourceIPIncrement)
ADDRESS(GetIPHeaderIncrements(), DestinationIPIncrement)
VALUE(GetIPv6HeaderIncrements(), TrafficClassIncrement)
VALUE(GetIPv6HeaderIncrements(), FlowLabelIncrement)
VALUE(GetIPv6HeaderIncrements(), NextHeaderIncrement)
VALUE(GetIPv6HeaderIncrements(), HopLimitIncrement)
ADDRESS(GetIPv6HeaderIncrements(), SourceIPv6AddressIncrement)
ADDRESS(GetIPv6HeaderIncrements(), DestinationIPv6AddressIncrement)
VALUE(GetUDPHeaderIncrements(), SourcePortIncrement)
VALUE(GetUDPHeaderIncrements(), DestinationPortIncrement)
VALUE(GetRTPHeaderIncrements(), PayloadTypeIncrement)
VALUE(GetRTPHeaderIncrements(), SSRCIncrement)
VALUE_GETTER(GetVLANHeaderIncrements(), VLANIdentifierIncrement)

VALUE(GetErrorInsertion(), ErrInsertionEnable)
VALUE(GetErrorInsertion(), PacketLossEnabled)
VALUE(GetErrorInsertion(), NumPacketLoss)
VALUE(GetErrorInsertion(), PacketLossRange)
VALUE(GetErrorInsertion(), SequenceErrorEnabled)
VALUE(GetErrorInsertion(), NumSequenceError)
VALUE(GetErrorInsertion(), SequenceErrorRange)
VALUE(GetErrorInsertion(), SequenceErrorDistance)
VALUE(GetErrorInsertion(), ChecksumErrorEnabled)
VALUE(GetErrorInsertion(), ChecksumErrorType)
VALUE(GetErrorInsertion(), NumChecksumError)
VALUE(GetErrorInsertion(), ChecksumErrorRange)
VALUE(GetErrorInsertion(), RandomizeErrors)

VALUE(&Settings().parametric, BurstMode)
VALUE(&Settings().parametric, BurstValueType)
VALUE(&Settings().parametric, BurstPeriod)
VALUE(&Settings().parametric, BurstSize)
VALUE(&Settings().parametric, LowJitterModeEnabled)
VALUE(&Settings().parametric, JitterEnabled)
VALUE(&Settings().parametric, JitterPeriod)
VALUE(&Settings().parametric, JitterDistributionType)

VALUE(&Settings().other, PlayerThreadPriority)
VALUE(&Settings().other, PlayerProcessPriority)

VALUE(&Settings().tts, TTSEnabled)
VALUE(&Settings().tts, TTSPreserveFileTimestamps)
VALUE(&Settings().tts, TTSJitterEnable)
VALUE(&Settings().tts, TTSJitterPeriod)
VALUE(&Settings().tts, TTSJitterAmplitude)
VALUE(&Settings().tts, TTSJitterPulseWidth)
VALUE(&Settings().tts, TTSJitterPatternType)

#undef ADDRESS
#undef ADDRESS_GETTER
#undef ADDRESS_SETTER
#undef VALUE
#undef VALUE_GETTER
#undef VALUE_SETTER

int SetTSPacketSize(uint32_t value) {
  Settings().TSPacketSize = value;
  return 1;
}

uint32_t IsIPEnabled() {
  return Settings().IPEnabled;
}

void SetConfigurationName(const char* name) {
  CopyName(GetIPPlayParams()->ConfigurationName, name);
}
char* GetConfigurationName() {
  return GetIPPlayParams()->ConfigurationName;
}

void SetDeviceName(const char* name) {
  CopyName(GetIPPlayParams()->DeviceName, name);
}
char* GetDeviceName() {
  return GetIPPlayParams()->DeviceName;
}

void SetDeviceIndex(uint32_t index) {
  GetIPPlayParams()->DeviceIndex = index;
  int count = 0;
  const DeviceListEntry* devices = GetListOfDevices(&count);
  if (devices != nullptr && count > 0 && index < static_cast<uint32_t>(count)) {
    CopyName(GetIPPlayParams()->DeviceName, devices[index].Description);
  }
}
uint32_t GetDeviceIndex() {
  return GetIPPlayParams()->DeviceIndex;
}

// A number that is set is the number that is used.
void SetSequenceNumber(uint32_t value) {
  GetRTPHeaderSettings()->SequenceNumber = value;
  GetRTPHeaderSettings()->RandomSequenceNumber = IPPLAYOUT_OFF;
}
void SetSSRC(uint32_t value) {
  GetRTPHeaderSettings()->SSRC = value;
  GetRTPHeaderSettings()->RandomSSRC = IPPLAYOUT_OFF;
}

void SetVLANIdentifierIncrement(uint16_t value) {
  GetVLANHeaderIncrements()->VLANIdentifierIncrement = value;
}
