#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "control/settings_store.h"
#include "ipplayout/ipplayout.h"

namespace {

using ipplayout::PlayoutSettings;
using ipplayout::Settings;

// Every byte of the settings, to see what a call changed and what it left alone.
using Image = std::array<std::uint8_t, sizeof(PlayoutSettings)>;

Image TakeImage() {
  Image image;
  std::memcpy(image.data(), &Settings(), image.size());
  return image;
}

// Taken before main, so that no test can have set anything.
const Image image_at_load = TakeImage();

constexpr std::uint8_t kFiller = 0xEE;

void FillSettings(std::uint8_t byte) {
  static_assert(std::is_trivially_copyable_v<PlayoutSettings>);
  std::memset(static_cast<void*>(&Settings()), byte, sizeof(PlayoutSettings));
}

std::uint8_t PatternAt(std::size_t index) {
  return static_cast<std::uint8_t>(0x81 + 7 * index);
}

std::vector<std::uint8_t> Pattern(std::size_t size) {
  std::vector<std::uint8_t> bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = PatternAt(i);
  }
  return bytes;
}

// The settings full of filler, but for the pattern in the `size` bytes at `place`.
Image FillerWithPattern(const void* place, std::size_t size) {
  Image image;
  image.fill(kFiller);
  const auto offset =
      static_cast<const std::uint8_t*>(place) - reinterpret_cast<const std::uint8_t*>(&Settings());
  for (std::size_t i = 0; i < size; ++i) {
    image.at(static_cast<std::size_t>(offset) + i) = PatternAt(i);
  }
  return image;
}

Image Filler() {
  return FillerWithPattern(&Settings(), 0);
}

struct Value {
  std::string name;
  void* field;
  std::size_t size;
  std::function<void()> set_pattern;
  std::function<bool()> getter_agrees;  // empty where there is no getter
};

template <typename T>
Value Pair(const char* name, T& field, void (*set)(T), T (*get)() = nullptr) {
  const auto set_pattern = [set] {
    T value;
    std::memcpy(&value, Pattern(sizeof value).data(), sizeof value);
    set(value);
  };
  std::function<bool()> getter_agrees;
  if (get != nullptr) {
    getter_agrees = [get, &field] {
      const T value = get();
      return std::memcmp(&value, &field, sizeof value) == 0;
    };
  }
  return {name, &field, sizeof field, set_pattern, getter_agrees};
}

#define PAIR(record, name) Pair(#name, (record).name, Set##name, Get##name)
#define SETTER(record, name) Pair(#name, (record).name, Set##name)

std::vector<Value> PlayoutValues() {
  IPPlayParams& params = Settings().params;
  return {
      Pair("PlayFileSizeForIP", Settings().PlayFileSizeForIP, SetPlayFileSizeForIP,
           GetPlayFileSizeForIP),
      PAIR(Settings(), IPBitRate),
      PAIR(Settings(), IPBitRateChosen),
      Pair("IPEnabled", Settings().IPEnabled, SetIPEnabled, IsIPEnabled),
      PAIR(params, IPLayerVersion),
      PAIR(params, ProtocolMode),
      PAIR(params, BroadcastType),
      PAIR(params, PacketSizeMode),
      PAIR(params, IPPacketSize),
      PAIR(params, TSPacketCount),
      PAIR(params, TSFragmentation),
      PAIR(params, IPFragmentation),
      PAIR(params, SrcAddrAdvansedFlag),
      PAIR(params, DstAddrAdvansedFlag),
      PAIR(params, SrcIpv6AddrAdvansedFlag),
      PAIR(params, DstIpv6AddrAdvansedFlag),
      PAIR(params, SrcMacAddrAdvansedFlag),
      PAIR(params, DstMacAddrAdvansedFlag),
      PAIR(params, SrcPortAdvansedFlag),
      PAIR(params, DstPortAdvansedFlag),
      PAIR(params, VLANIdAdvansedFlag),
      PAIR(params, EtherProtocolAdvansedFlag),
      PAIR(params, ReplicationCount),
  };
}

std::vector<Value> HeaderValues() {
  ProtocolHeadersSettings& headers = Settings().params.ProtocolHeadersSettings;
  IPHeaderSettings& ip = headers.IPHeaderSettings;
  IPv6HeaderSettings& ipv6 = headers.IPv6HeaderSettings;
  UDPHeaderSettings& udp = headers.UDPHeaderSettings;
  RTPHeaderSettings& rtp = headers.RTPHeaderSettings;
  return {
      PAIR(headers.EthernetHeaderSettings, EProtocol),
      PAIR(headers, VLANEnabled),
      PAIR(headers, TPID),
      PAIR(headers, VLANPriorityLevel),
      PAIR(headers, CFI),
      PAIR(headers, VID),
      PAIR(ip, IPVersion),
      PAIR(ip, TOS),
      PAIR(ip, HeaderLength),
      SETTER(ip, TotalLength),
      PAIR(ip, Flags),
      PAIR(ip, TTL),
      PAIR(ip, Identification),
      PAIR(ip, FragmentOffset),
      PAIR(ip, IPProtocol),
      PAIR(ip, Checksum),
      SETTER(ipv6, TrafficClass),
      SETTER(ipv6, FlowLabel),
      SETTER(ipv6, NextHeader),
      SETTER(ipv6, HopLimit),
      PAIR(udp, SourcePort),
      PAIR(udp, DestinationPort),
      SETTER(udp, Length),
      PAIR(rtp, RTPVersion),
      PAIR(rtp, Extension),
      PAIR(rtp, Marker),
      PAIR(rtp, Padding),
      PAIR(rtp, CSRCCount),
      PAIR(rtp, PayloadType),
      PAIR(rtp, TimeStamp),
  };
}

std::vector<Value> IncrementValues() {
  ProtocolHeadersIncrements& increments = Settings().params.ProtocolHeadersIncrements;
  IPHeaderIncrements& ip = increments.IPHeaderIncrements;
  IPv6HeaderIncrements& ipv6 = increments.IPv6HeaderIncrements;
  UDPHeaderIncrements& udp = increments.UDPHeaderIncrements;
  RTPHeaderIncrements& rtp = increments.RTPHeaderIncrements;
  return {
      PAIR(increments.EthernetHeaderIncrements, EProtocolIncrement),
      PAIR(ip, TOSIncrement),
      PAIR(ip, TTLIncrement),
      PAIR(ip, IPProtocolIncrement),
      PAIR(ipv6, TrafficClassIncrement),
      PAIR(ipv6, FlowLabelIncrement),
      PAIR(ipv6, NextHeaderIncrement),
      PAIR(ipv6, HopLimitIncrement),
      PAIR(udp, SourcePortIncrement),
      PAIR(udp, DestinationPortIncrement),
      PAIR(rtp, PayloadTypeIncrement),
      PAIR(rtp, SSRCIncrement),
  };
}

std::vector<Value> DisturbanceValues() {
  ErrorInsertion& errors = Settings().error_insertion;
  ParametricSettings& parametric = Settings().parametric;
  return {
      PAIR(errors, ErrInsertionEnable),
      PAIR(errors, PacketLossEnabled),
      PAIR(errors, NumPacketLoss),
      PAIR(errors, PacketLossRange),
      PAIR(errors, SequenceErrorEnabled),
      PAIR(errors, NumSequenceError),
      PAIR(errors, SequenceErrorRange),
      PAIR(errors, SequenceErrorDistance),
      PAIR(errors, ChecksumErrorEnabled),
      PAIR(errors, ChecksumErrorType),
      PAIR(errors, NumChecksumError),
      PAIR(errors, ChecksumErrorRange),
      PAIR(errors, RandomizeErrors),
      PAIR(parametric, BurstMode),
      PAIR(parametric, BurstValueType),
      PAIR(parametric, BurstPeriod),
      PAIR(parametric, BurstSize),
      PAIR(parametric, LowJitterModeEnabled),
      PAIR(parametric, JitterEnabled),
      PAIR(parametric, JitterPeriod),
      PAIR(parametric, JitterDistributionType),
  };
}

std::vector<Value> OtherValues() {
  return {
      PAIR(Settings().other, PlayerThreadPriority),
      PAIR(Settings().other, PlayerProcessPriority),
      PAIR(Settings().tts, TTSEnabled),
      PAIR(Settings().tts, TTSPreserveFileTimestamps),
      PAIR(Settings().tts, TTSJitterEnable),
      PAIR(Settings().tts, TTSJitterPeriod),
      PAIR(Settings().tts, TTSJitterAmplitude),
      PAIR(Settings().tts, TTSJitterPulseWidth),
      PAIR(Settings().tts, TTSJitterPatternType),
  };
}

class SettingsTest : public testing::Test {
 protected:
  void SetUp() override { FillSettings(kFiller); }
  void TearDown() override { FillSettings(0); }
};

TEST_F(SettingsTest, EverySettingIsZeroWhenLoaded) {
  EXPECT_THAT(image_at_load, testing::Each(0));
}

TEST_F(SettingsTest, ValueAccessorsReachTheirOwnFieldAndNothingElse) {
  for (const auto& values :
       {PlayoutValues(), HeaderValues(), IncrementValues(), DisturbanceValues(), OtherValues()}) {
    for (const Value& value : values) {
      SCOPED_TRACE(value.name);
      FillSettings(kFiller);
      value.set_pattern();
      EXPECT_EQ(TakeImage(), FillerWithPattern(value.field, value.size));
      if (value.getter_agrees) {
        EXPECT_TRUE(value.getter_agrees()) << "after the setter";
        std::memset(value.field, 0x42, value.size);
        EXPECT_TRUE(value.getter_agrees()) << "after a write through a record's pointer";
      }
    }
  }
}

struct Address {
  const char* name;
  std::uint8_t* field;
  std::size_t size;
  void (*set)(const std::uint8_t*);
  std::uint8_t* (*get)();  // null where there is no getter
};

#define ADDRESS(record, name)                                       \
  Address {                                                         \
#name, (record).name, sizeof(record).name, Set##name, Get##name \
  }

std::vector<Address> Addresses() {
  ProtocolHeadersSettings& headers = Settings().params.ProtocolHeadersSettings;
  ProtocolHeadersIncrements& increments = Settings().params.ProtocolHeadersIncrements;
  IPv6HeaderSettings& ipv6 = headers.IPv6HeaderSettings;
  return {
      ADDRESS(headers.EthernetHeaderSettings, DestinationMacAddress),
      ADDRESS(headers.EthernetHeaderSettings, SourceMacAddress),
      ADDRESS(headers.IPHeaderSettings, SourceIP),
      ADDRESS(headers.IPHeaderSettings, DestinationIP),
      {"SourceIPv6", ipv6.SourceIPv6, 16, SetSourceIPv6, nullptr},
      {"DestinationIPv6", ipv6.DestinationIPv6, 16, SetDestinationIPv6, nullptr},
      ADDRESS(increments.EthernetHeaderIncrements, DestinationMacAddressIncrement),
      ADDRESS(increments.EthernetHeaderIncrements, SourceMacAddressIncrement),
      ADDRESS(increments.IPHeaderIncrements, SourceIPIncrement),
      ADDRESS(increments.IPHeaderIncrements, DestinationIPIncrement),
      ADDRESS(increments.IPv6HeaderIncrements, SourceIPv6AddressIncrement),
      ADDRESS(increments.IPv6HeaderIncrements, DestinationIPv6AddressIncrement),
  };
}

TEST_F(SettingsTest, AddressAccessorsCopyTheWidthOfTheirField) {
  for (const Address& address : Addresses()) {
    SCOPED_TRACE(address.name);
    FillSettings(kFiller);
    address.set(nullptr);
    EXPECT_EQ(TakeImage(), Filler()) << "after a null pointer";
    address.set(Pattern(address.size).data());
    EXPECT_EQ(TakeImage(), FillerWithPattern(address.field, address.size));
    if (address.get != nullptr) {
      EXPECT_EQ(address.get(), address.field);
    }
  }
}

struct Record {
  const char* name;
  std::size_t offset;  // in IPPlayParams
  std::size_t size;
  std::function<void(const void*)> set;
  std::function<void*()> get;
};

template <typename T>
Record Group(const char* name, std::size_t offset, std::size_t size, void (*set)(const T*),
             T* (*get)()) {
  return {name, offset, size, [set](const void* from) { set(static_cast<const T*>(from)); }, get};
}

#define GROUP(name, offset, size) Group(#name, offset, size, Set##name, Get##name)

// Offsets and sizes are the sums of the widths of the documented fields.
std::vector<Record> Records() {
  return {
      GROUP(IPPlayParams, 0, 764),
      GROUP(ProtocolHeadersSettings, 476, 184),
      GROUP(EthernetHeaderSettings, 476, 16),
      GROUP(IPHeaderSettings, 512, 44),
      GROUP(IPv6HeaderSettings, 556, 48),
      GROUP(UDPHeaderSettings, 604, 12),
      GROUP(RTPHeaderSettings, 616, 44),
      GROUP(ProtocolHeadersIncrements, 660, 100),
      GROUP(EthernetHeaderIncrements, 660, 16),
      GROUP(IPHeaderIncrements, 676, 20),
      GROUP(IPv6HeaderIncrements, 696, 44),
      GROUP(UDPHeaderIncrements, 740, 8),
      GROUP(RTPHeaderIncrements, 748, 8),
      GROUP(VLANHeaderIncrements, 756, 4),
  };
}

void ExpectRecord(const Record& record, std::uint8_t* field) {
  SCOPED_TRACE(record.name);
  FillSettings(kFiller);
  EXPECT_EQ(record.get(), field);
  record.set(nullptr);
  EXPECT_EQ(TakeImage(), Filler()) << "after a null pointer";
  alignas(8) std::array<std::uint8_t, 764> bytes;
  std::memcpy(bytes.data(), Pattern(bytes.size()).data(), bytes.size());
  record.set(bytes.data());
  EXPECT_EQ(TakeImage(), FillerWithPattern(field, record.size));
}

TEST_F(SettingsTest, RecordAccessorsCopyTheWholeRecordAndReturnTheLiveOne) {
  for (const Record& record : Records()) {
    ExpectRecord(record, reinterpret_cast<std::uint8_t*>(&Settings().params) + record.offset);
  }
  ExpectRecord(GROUP(ErrorInsertion, 0, 52),
               reinterpret_cast<std::uint8_t*>(&Settings().error_insertion));
}

TEST_F(SettingsTest, ARecordMayBeSetFromItself) {
  SetDestinationIP(Pattern(4).data());
  SetIPHeaderSettings(GetIPHeaderSettings());
  SetDestinationIP(GetDestinationIP());
  EXPECT_EQ(TakeImage(), FillerWithPattern(GetDestinationIP(), 4));
}

TEST_F(SettingsTest, RecordsPassedByValueAreCopiedInAndOut) {
  const ParametricSettings parametric = {1, 2, 3, 4, 5, 6, 7.5F, 8, 9};
  SetParametricSettings(parametric);
  ParametricSettings parametric_out = {};
  GetParametricSettings(&parametric_out);
  EXPECT_EQ(std::memcmp(&parametric_out, &parametric, sizeof parametric), 0);
  EXPECT_EQ(GetJitterPeriod(), 7.5F);
  EXPECT_EQ(GetJitterDistributionType(), 9U);

  const TTSSettings tts = {1, 2, 3, 4, 5, 6, 7};
  SetTTSSettings(tts);
  TTSSettings tts_out = {};
  GetTTSSettings(&tts_out);
  EXPECT_EQ(std::memcmp(&tts_out, &tts, sizeof tts), 0);
  EXPECT_EQ(GetTTSJitterPatternType(), 7U);

  SetIPOtherSettings(4, 2);
  IPOtherSettings other_out = {};
  GetIPOtherSettings(&other_out);
  EXPECT_EQ(other_out.PlayerThreadPriority, 4U);
  EXPECT_EQ(other_out.PlayerProcessPriority, 2U);
  EXPECT_EQ(GetPlayerThreadPriority(), 4U);

  GetParametricSettings(nullptr);
  GetTTSSettings(nullptr);
  GetIPOtherSettings(nullptr);
}

TEST_F(SettingsTest, GettersOfNestedRecordsShareTheAddressOfTheirFirstField) {
  EXPECT_EQ(static_cast<void*>(GetConfigurationName()), GetIPPlayParams());
  EXPECT_EQ(static_cast<void*>(GetDestinationMacAddress()), GetProtocolHeadersSettings());
  EXPECT_EQ(static_cast<void*>(GetEthernetHeaderSettings()), GetProtocolHeadersSettings());
  EXPECT_EQ(static_cast<void*>(GetDestinationMacAddressIncrement()),
            GetProtocolHeadersIncrements());
  EXPECT_EQ(static_cast<void*>(GetEthernetHeaderIncrements()), GetProtocolHeadersIncrements());
}

TEST_F(SettingsTest, NamesAreCutToTheirFieldAndLeaveNothingOfTheNameBefore) {
  const std::pair<void (*)(const char*), char* (*)()> names[] = {
      {SetConfigurationName, GetConfigurationName}, {SetDeviceName, GetDeviceName}};
  for (const auto& [set, get] : names) {
    for (const std::size_t length : {0U, 1U, 198U, 199U, 200U, 5000U}) {
      SCOPED_TRACE(length);
      FillSettings(kFiller);
      set(nullptr);
      EXPECT_EQ(TakeImage(), Filler()) << "after a null pointer";
      set(std::string(length, 'n').c_str());
      const std::size_t kept = length < 199 ? length : 199;
      std::string field(200, '\0');
      field.replace(0, kept, kept, 'n');
      EXPECT_EQ(std::string(get(), 200), field);
      std::memset(get(), kFiller, 200);
      EXPECT_EQ(TakeImage(), Filler()) << "outside the field";
    }
  }
}

TEST_F(SettingsTest, ANumberThatIsSetTurnsItsRandomDrawOff) {
  RTPHeaderSettings rtp = {};
  rtp.RandomSequenceNumber = 1;
  rtp.RandomSSRC = 1;
  SetRTPHeaderSettings(&rtp);
  SetSequenceNumber(5);
  EXPECT_EQ(GetSequenceNumber(), 5U);
  EXPECT_EQ(GetRTPHeaderSettings()->RandomSequenceNumber, 0U);
  EXPECT_EQ(GetRTPHeaderSettings()->RandomSSRC, 1U);
  SetSSRC(0x12345678);
  EXPECT_EQ(GetSSRC(), 0x12345678U);
  EXPECT_EQ(GetRTPHeaderSettings()->RandomSSRC, 0U);
  EXPECT_EQ(GetSequenceNumber(), 5U);
}

TEST_F(SettingsTest, NarrowAndSignedValuesArriveWhole) {
  SetVLANIdentifierIncrement(0xFFFF);
  EXPECT_EQ(GetVLANIdentifierIncrement(), 65535U);
  SetReplicationCount(-1);
  EXPECT_EQ(GetReplicationCount(), -1);
  SetExtension(-2);
  EXPECT_EQ(GetExtension(), -2);
  EXPECT_EQ(SetTSPacketSize(204), 1);
  EXPECT_EQ(GetTSPacketSize(), 204U);
  SetPlayFileSizeForIP(0x123456789ABCDEF0);
  EXPECT_EQ(GetPlayFileSizeForIP(), 0x123456789ABCDEF0U);
}

TEST_F(SettingsTest, InitialisationClearsWhatDescribesOnePlayoutOnly) {
  Image expected = Filler();
  const auto clear = [&expected](std::size_t offset, std::size_t size) {
    std::memset(expected.data() + offset, 0, size);
  };
  clear(offsetof(PlayoutSettings, params), 764);
  clear(offsetof(PlayoutSettings, error_insertion), 52);
  clear(offsetof(PlayoutSettings, parametric), 36);
  clear(offsetof(PlayoutSettings, other), 8);
  ipplayout::ResetForInit();
  EXPECT_EQ(TakeImage(), expected);
}

TEST_F(SettingsTest, DeviceIndexBringsTheDescriptionOfItsAdapter) {
  InitIpPlayout();
  int count = 0;
  const DeviceListEntry* devices = GetListOfDevices(&count);
  if (count == 0 && geteuid() != 0) {
    GTEST_SKIP() << "no adapter may be listed";
  }
  ASSERT_GT(count, 0);
  for (int i = 0; i < count; ++i) {
    SetDeviceIndex(static_cast<std::uint32_t>(i));
    EXPECT_EQ(GetDeviceIndex(), static_cast<std::uint32_t>(i));
    EXPECT_STREQ(GetDeviceName(), devices[i].Description);
  }

  SetDeviceName("kept");
  for (const std::uint32_t index : {static_cast<std::uint32_t>(count), 0xFFFFFFFFU}) {
    SetDeviceIndex(index);
    EXPECT_EQ(GetDeviceIndex(), index);
    EXPECT_STREQ(GetDeviceName(), "kept");
  }
  DeleteListOfDevices();
  SetDeviceIndex(0);
  EXPECT_EQ(GetDeviceIndex(), 0U);
  EXPECT_STREQ(GetDeviceName(), "kept");
  CleanupIpPlayout();
}

}  // namespace
