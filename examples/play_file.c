// SPDX-License-Identifier: MIT
// Plays a file of 188-byte transport stream packets over UDP/IPv4 and follows it to its end:
//   play_file FILE DEVICE_INDEX ADDRESS PORT MBIT_PER_SECOND
#include <inttypes.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/eventfd.h>

#include "ipplayout/ipplayout.h"

// Runs on a thread of its own, since IPWrite blocks while the library has enough.
static void* Feed(void* file) {
  static uint32_t units[188 * 7 * 8 / 4];  // IPWrite counts in units of 4 bytes
  size_t count = 0;
  do {
    count = fread(units, sizeof units[0], sizeof units / sizeof units[0], (FILE*)file);
  } while (count > 0 && IPWrite(units, (uint16_t)count) == 0);
  IPWriteTerminate();
  return NULL;
}

static int SetDestination(char** argv) {
  const int device = (int)strtol(argv[2], NULL, 10);
  int count = 0;
  const DeviceListEntry* devices = GetListOfDevices(&count);
  uint8_t source[4], destination[4], mac[6];
  uint8_t* mac_out = mac;
  if (device < 0 || device >= count || devices[device].IPv4AddressCount == 0 ||
      !GetIpAddressBytes(argv[3], destination) ||
      !GetMacAddressForIP(0, destination, &mac_out, device)) {
    return 0;
  }
  char own_address[16];
  snprintf(own_address, sizeof own_address, "%s", devices[device].IPv4Addresses[0]);
  GetIpAddressBytes(own_address, source);
  SetDeviceIndex((uint32_t)device);
  SetSourceMacAddress(devices[device].MacAddress);
  SetDestinationMacAddress(mac);
  SetSourceIP(source);
  SetDestinationIP(destination);
  SetDestinationPort((uint32_t)strtoul(argv[4], NULL, 10));
  SetIPBitRate(strtod(argv[5], NULL));
  return 1;
}

int main(int argc, char** argv) {
  FILE* file = argc == 6 ? fopen(argv[1], "rb") : NULL;
  const intptr_t completion = eventfd(0, EFD_CLOEXEC);
  InitIpPlayout();
  RegisterForIPPlayoutCompletion(&completion);
  SetEProtocol(0x0800);
  SetIPVersion(4);
  SetIPProtocol(17);
  SetTTL(16);
  SetSourcePort(5000);
  SetTSPacketSize(188);
  SetPacketSizeMode(IPPLAYOUT_SIZE_TS_PACKETS);
  SetTSPacketCount(7);
  pthread_t feeder;
  if (file == NULL || !SetDestination(argv) || IPStart() != 0 ||
      pthread_create(&feeder, NULL, Feed, file) != 0) {
    fputs("cannot play: play_file FILE DEVICE_INDEX ADDRESS PORT MBIT_PER_SECOND\n", stderr);
    return 1;
  }
  struct pollfd playout = {.fd = (int)completion, .events = POLLIN};
  PlayoutStatistics sent;
  int completed = 0;
  while (!completed) {
    completed = poll(&playout, 1, 1000) > 0;
    GetPlayoutStatistics(&sent);
    printf("%" PRIu64 " datagrams, %" PRIu64 " bytes\n", sent.DatagramsSent, sent.BytesSent);
  }
  pthread_join(feeder, NULL);
  IPStop();
  CleanupIpPlayout();
  return fclose(file);
}
