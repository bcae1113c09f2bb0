// SPDX-License-Identifier: MIT
#include "wire/playout.h"

#include <cstdint>
#include <cstdio>
#include <string>

#include "ipplayout/ipplayout.h"

namespace {

int FindDevice(const char* device) {
  int count = 0;
  const DeviceListEntry* list = GetListOfDevices(&count);
  for (int i = 0; i < count; ++i) {
    if (std::string("rpcap://") + device == list[i].Name) {
      return i;
    }
  }
  return -1;
}

void SetReplication(int copies) {
  SetReplicationCount(copies - 1);
  const std::uint8_t next_group[4] = {0, 0, 0, 1};
  SetDestinationIPIncrement(next_group);
}

}  // namespace

bool ConfigurePlayout(const char* device, double megabits, int copies) {
  const int index = FindDevice(device);
  if (index < 0) {
    std::fprintf(stderr, "%s: no such device\n", device);
    return false;
  }
  const std::uint8_t group_mac[6] = {0x01, 0x00, 0x5E, 0x01, 0x02, 0x03};
  const std::uint8_t own_mac[6] = {0x02, 0, 0, 0, 0, 1};
  const std::uint8_t source[4] = {10, 77, 0, 1};
  const std::uint8_t group[4] = {239, 1, 2, 3};
  SetDeviceIndex(static_cast<std::uint32_t>(index));
  SetProtocolMode(1);
  SetIPPacketSize(1370);
  SetTSPacketSize(188);
  SetIPBitRate(megabits);
  SetDestinationMacAddress(group_mac);
  SetSourceMacAddress(own_mac);
  SetEProtocol(0x0800);
  SetIPVersion(4);
  SetTTL(16);
  SetIPProtocol(17);
  SetSourceIP(source);
  SetDestinationIP(group);
  SetSourcePort(40000);
  SetDestinationPort(5004);
  SetRTPVersion(2);
  SetPayloadType(33);
  SetReplication(copies);
  return true;
}

bool ApplyTiming(const char* text) {
  unsigned pattern = 0;
  float period = 0;
  unsigned burst = 0;
  if (std::sscanf(text, "burst=%u", &burst) == 1) {
    SetBurstMode(1);
    SetBurstValueType(1);
    SetBurstSize(burst);
    return true;
  }
  if (std::sscanf(text, "jitter=%u:%f", &pattern, &period) == 2) {
    SetJitterEnabled(1);
    SetJitterDistributionType(pattern);
    SetJitterPeriod(period);
    return true;
  }
  return false;
}
