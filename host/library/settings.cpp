// SPDX-License-Identifier: MIT
#include "host/library/settings.h"

#include <fmt/format.h>

#include <span>
#include <type_traits>

#include "host/base/address.h"

namespace ipplay {
namespace {

std::string Show(std::uint32_t value) {
  return std::to_string(value);
}
std::string Show(std::int32_t value) {
  return std::to_string(value);
}
std::string Show(std::uint64_t value) {
  return std::to_string(value);
}
std::string Show(float value) {
  return fmt::format("{}", value);
}
std::string Show(double value) {
  return fmt::format("{:.9f}", value);
}
std::string Show(const char* text) {
  return fmt::format("\"{}\"", text);
}

// Addresses by their size.
template <std::size_t N>
std::string Show(const std::uint8_t (&bytes)[N]) {
  if constexpr (N == 6) {
    MacAddress mac{};
    std::copy(std::begin(bytes), std::end(bytes), mac.begin());
    return FormatMac(mac);
  } else {
    IpAddress address{.is_v6 = N == 16};
    std::copy(std::begin(bytes), std::end(bytes), address.bytes.begin());
    return FormatIp(address);
  }
}

// Collects the fields of one record after the other; the expression that is shown also names it.
class Collector {
 public:
  template <typename T>
  Collector& operator()(const char* name, const T& value) {
    if constexpr (std::is_same_v<T, std::uint8_t>) {
      list_.push_back({name, Show(std::uint32_t{value})});
    } else {
      list_.push_back({name, Show(value)});
    }
    return *this;
  }
  std::vector<NamedSetting> Take() { return std::move(list_); }

 private:
  std::vector<NamedSetting> list_;
};

void AddPlayParams(Collector& add, const IPPlayParams& p) {
  add("ConfigurationName", &p.ConfigurationName[0])("IPLayerVersion", p.IPLayerVersion);
  add("DeviceName", &p.DeviceName[0])("DeviceIndex", p.DeviceIndex);
  add("ProtocolMode", p.ProtocolMode)("BroadcastType", p.BroadcastType);
  add("PacketSizeMode", p.PacketSizeMode)("IPPacketSize", p.IPPacketSize);
  add("TSPacketCount", p.TSPacketCount)("TSFragmentation", p.TSFragmentation);
  add("IPFragmentation", p.IPFragmentation)("ReplicationCount", p.ReplicationCount);
  add("SrcAddrAdvansedFlag", p.SrcAddrAdvansedFlag)("DstAddrAdvansedFlag", p.DstAddrAdvansedFlag);
  add("SrcIpv6AddrAdvansedFlag", p.SrcIpv6AddrAdvansedFlag);
  add("DstIpv6AddrAdvansedFlag", p.DstIpv6AddrAdvansedFlag);
  add("SrcMacAddrAdvansedFlag", p.SrcMacAddrAdvansedFlag);
  add("DstMacAddrAdvansedFlag", p.DstMacAddrAdvansedFlag);
  add("SrcPortAdvansedFlag", p.SrcPortAdvansedFlag)("DstPortAdvansedFlag", p.DstPortAdvansedFlag);
  add("VLANIdAdvansedFlag", p.VLANIdAdvansedFlag);
  add("EtherProtocolAdvansedFlag", p.EtherProtocolAdvansedFlag);
}

void AddHeaders(Collector& add, const ProtocolHeadersSettings& h) {
  add("DestinationMacAddress", h.EthernetHeaderSettings.DestinationMacAddress);
  add("SourceMacAddress", h.EthernetHeaderSettings.SourceMacAddress);
  add("EProtocol", h.EthernetHeaderSettings.EProtocol);
  add("VLANEnabled", h.VLANEnabled)("TPID", h.TPID)("VLANPriorityLevel", h.VLANPriorityLevel);
  add("CFI", h.CFI)("VID", h.VID);
  const IPHeaderSettings& ip = h.IPHeaderSettings;
  add("IPVersion", ip.IPVersion)("TOS", ip.TOS)("HeaderLength", ip.HeaderLength);
  add("TotalLength", ip.TotalLength)("Flags", ip.Flags)("TTL", ip.TTL);
  add("Identification", ip.Identification)("FragmentOffset", ip.FragmentOffset);
  add("IPProtocol", ip.IPProtocol)("SourceIP", ip.SourceIP)("Checksum", ip.Checksum);
  add("DestinationIP", ip.DestinationIP);
  const IPv6HeaderSettings& v6 = h.IPv6HeaderSettings;
  add("IPv6Version", v6.IPv6Version)("TrafficClass", v6.TrafficClass);
  add("FlowLabel", v6.FlowLabel)("Ipv6PayloadLength", v6.Ipv6PayloadLength);
  add("NextHeader", v6.NextHeader)("HopLimit", v6.HopLimit)("SourceIPv6", v6.SourceIPv6);
  add("DestinationIPv6", v6.DestinationIPv6);
  add("SourcePort", h.UDPHeaderSettings.SourcePort);
  add("DestinationPort", h.UDPHeaderSettings.DestinationPort);
  add("Length", h.UDPHeaderSettings.Length);
  const RTPHeaderSettings& rtp = h.RTPHeaderSettings;
  add("RTPVersion", rtp.RTPVersion)("Extension", rtp.Extension)("Marker", rtp.Marker);
  add("RandomSequenceNumber", rtp.RandomSequenceNumber)("SequenceNumber", rtp.SequenceNumber);
  add("Padding", rtp.Padding)("CSRCCount", rtp.CSRCCount)("PayloadType", rtp.PayloadType);
  add("TimeStamp", rtp.TimeStamp)("RandomSSRC", rtp.RandomSSRC)("SSRC", rtp.SSRC);
}

void AddIncrements(Collector& add, const ProtocolHeadersIncrements& i) {
  const EthernetHeaderIncrements& ethernet = i.EthernetHeaderIncrements;
  add("DestinationMacAddressIncrement", ethernet.DestinationMacAddressIncrement);
  add("SourceMacAddressIncrement", ethernet.SourceMacAddressIncrement);
  add("EProtocolIncrement", ethernet.EProtocolIncrement);
  const IPHeaderIncrements& ip = i.IPHeaderIncrements;
  add("TOSIncrement", ip.TOSIncrement)("TTLIncrement", ip.TTLIncrement);
  add("IPProtocolIncrement", ip.IPProtocolIncrement)("SourceIPIncrement", ip.SourceIPIncrement);
  add("DestinationIPIncrement", ip.DestinationIPIncrement);
  const IPv6HeaderIncrements& v6 = i.IPv6HeaderIncrements;
  add("TrafficClassIncrement", v6.TrafficClassIncrement);
  add("FlowLabelIncrement", v6.FlowLabelIncrement);
  add("NextHeaderIncrement", v6.NextHeaderIncrement);
  add("HopLimitIncrement", v6.HopLimitIncrement);
  add("SourceIPv6AddressIncrement", v6.SourceIPv6AddressIncrement);
  add("DestinationIPv6AddressIncrement", v6.DestinationIPv6AddressIncrement);
  add("SourcePortIncrement", i.UDPHeaderIncrements.SourcePortIncrement);
  add("DestinationPortIncrement", i.UDPHeaderIncrements.DestinationPortIncrement);
  add("PayloadTypeIncrement", i.RTPHeaderIncrements.PayloadTypeIncrement);
  add("SSRCIncrement", i.RTPHeaderIncrements.SSRCIncrement);
  add("VLANIdentifierIncrement", i.VLANHeaderIncrements.VLANIdentifierIncrement);
}

void AddErrors(Collector& add, const ErrorInsertion& e) {
  add("ErrInsertionEnable", e.ErrInsertionEnable)("PacketLossEnabled", e.PacketLossEnabled);
  add("NumPacketLoss", e.NumPacketLoss)("PacketLossRange", e.PacketLossRange);
  add("SequenceErrorEnabled", e.SequenceErrorEnabled)("NumSequenceError", e.NumSequenceError);
  add("SequenceErrorRange", e.SequenceErrorRange);
  add("SequenceErrorDistance", e.SequenceErrorDistance);
  add("ChecksumErrorEnabled", e.ChecksumErrorEnabled)("ChecksumErrorType", e.ChecksumErrorType);
  add("NumChecksumError", e.NumChecksumError)("ChecksumErrorRange", e.ChecksumErrorRange);
  add("RandomizeErrors", e.RandomizeErrors);
}

void AddShape(Collector& add, const ParametricSettings& s) {
  add("BurstMode", s.BurstMode)("BurstValueType", s.BurstValueType)("BurstPeriod", s.BurstPeriod);
  add("BurstSize", s.BurstSize)("LowJitterModeEnabled", s.LowJitterModeEnabled);
  add("JitterEnabled", s.JitterEnabled)("JitterPeriod", s.JitterPeriod);
  add("JitterDistributionType", s.JitterDistributionType);
}

void AddTts(Collector& add, const TTSSettings& t) {
  add("TTSEnabled", t.TTSEnabled)("TTSPreserveFileTimestamps", t.TTSPreserveFileTimestamps);
  add("TTSJitterEnable", t.TTSJitterEnable)("TTSJitterPeriod", t.TTSJitterPeriod);
  add("TTSJitterAmplitude", t.TTSJitterAmplitude);
  add("TTSJitterPulseWidth", t.TTSJitterPulseWidth);
  add("TTSJitterPatternType", t.TTSJitterPatternType);
}

}  // namespace

void Apply(const Settings& settings) {
  SetIPPlayParams(&settings.params);
  SetErrorInsertion(&settings.errors);
  SetParametricSettings(settings.shape);
  SetIPOtherSettings(settings.other.PlayerThreadPriority, settings.other.PlayerProcessPriority);
  SetTTSSettings(settings.tts);
  SetPlayFileSizeForIP(settings.play_file_size);
  SetTSPacketSize(settings.ts_packet_size);
  SetIPBitRate(settings.ip_bit_rate);
  SetIPBitRateChosen(settings.ip_bit_rate_chosen);
  SetIPEnabled(settings.ip_enabled);
}

std::vector<NamedSetting> Describe(const Settings& settings) {
  Collector add;
  add("IPBitRate", settings.ip_bit_rate)("PlayFileSizeForIP", settings.play_file_size);
  add("TSPacketSize", settings.ts_packet_size)("IPEnabled", settings.ip_enabled);
  add("IPBitRateChosen", settings.ip_bit_rate_chosen);
  AddPlayParams(add, settings.params);
  AddHeaders(add, settings.params.ProtocolHeadersSettings);
  AddIncrements(add, settings.params.ProtocolHeadersIncrements);
  AddErrors(add, settings.errors);
  AddShape(add, settings.shape);
  add("PlayerThreadPriority", settings.other.PlayerThreadPriority);
  add("PlayerProcessPriority", settings.other.PlayerProcessPriority);
  AddTts(add, settings.tts);
  return add.Take();
}

}  // namespace ipplay
