// SPDX-License-Identifier: MIT
// Plays several transport streams at once, each at a constant rate to a group of its own, and says
// when their frames left. DEVICE may be a capture file, which is written at once:
//   play_files MBIT_PER_SECOND DEVICE|FILE.pcapng STREAM...
#include <inttypes.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ipplayout/playouts.h"

enum { MOST_STREAMS = 16 };

struct Channel {
  const char* path;
  IpPlayout* playout;
  pthread_t feeder;
};

// Runs on a thread for each stream, since IpPlayoutWrite blocks while a ring is full.
static void* Feed(void* argument) {
  struct Channel* channel = argument;
  static const size_t kPiece = 188 * 7 * 8;
  FILE* file = fopen(channel->path, "rb");
  char* bytes = malloc(kPiece);
  size_t count = 0;
  do {
    count = file == NULL || bytes == NULL ? 0 : fread(bytes, 1, kPiece, file);
  } while (count > 0 && IpPlayoutWrite(channel->playout, bytes, count) == IPPLAYOUT_DONE);
  IpPlayoutEnd(channel->playout);
  free(bytes);
  if (file != NULL) {
    fclose(file);
  }
  return NULL;
}

static int Configure(IpPlayout* playout, double megabits, const char* destination, uint8_t number) {
  static const uint8_t kSource[4] = {10, 0, 0, 1};
  const uint8_t group[4] = {239, 1, 1, number};
  const uint8_t mac[6] = {0x01, 0x00, 0x5E, 1, 1, number};
  IpPlayoutSettings settings;
  IpPlayoutDefaults(&settings);
  settings.To = strstr(destination, ".pcapng") == NULL ? IPPLAYOUT_TO_ADAPTER : IPPLAYOUT_TO_FILE;
  snprintf(settings.Destination, sizeof settings.Destination, "%s", destination);
  settings.BitRate = megabits;
  ProtocolHeadersSettings* headers = &settings.Params.ProtocolHeadersSettings;
  memcpy(headers->IPHeaderSettings.SourceIP, kSource, sizeof kSource);
  memcpy(headers->IPHeaderSettings.DestinationIP, group, sizeof group);
  memcpy(headers->EthernetHeaderSettings.DestinationMacAddress, mac, sizeof mac);
  headers->UDPHeaderSettings.SourcePort = 5000;
  headers->UDPHeaderSettings.DestinationPort = 5004;
  return IpPlayoutConfigure(playout, &settings);
}

int main(int argc, char** argv) {
  struct Channel channels[MOST_STREAMS];
  IpPlayout* playouts[MOST_STREAMS];
  const size_t count = argc < 4 ? 0 : (size_t)argc - 3;
  if (count == 0 || count > MOST_STREAMS) {
    fprintf(stderr, "usage: play_files MBIT_PER_SECOND DEVICE|FILE.pcapng STREAM...\n");
    return 2;
  }
  for (size_t i = 0; i < count; ++i) {
    channels[i].path = argv[3 + i];
    channels[i].playout = playouts[i] = IpPlayoutOpen();
    if (Configure(playouts[i], strtod(argv[1], NULL), argv[2], (uint8_t)(i + 1)) !=
        IPPLAYOUT_DONE) {
      fprintf(stderr, "%s\n", IpPlayoutError());
      return 1;
    }
  }
  if (IpPlayoutStart(playouts, count, 0) != IPPLAYOUT_DONE) {
    fprintf(stderr, "%s\n", IpPlayoutError());
    return 1;
  }
  for (size_t i = 0; i < count; ++i) {
    pthread_create(&channels[i].feeder, NULL, Feed, &channels[i]);
  }
  int result = 0;
  for (size_t i = 0; i < count; ++i) {
    IpPlayoutTiming timing;
    if (IpPlayoutWait(playouts[i], -1) != IPPLAYOUT_DONE) {
      fprintf(stderr, "%s: %s\n", channels[i].path, IpPlayoutError());
      result = 1;
    }
    pthread_join(channels[i].feeder, NULL);
    IpPlayoutGetTiming(playouts[i], &timing);
    printf("%s: %" PRIu64 " frames, %" PRIu64 " late, at most %.1f us\n", channels[i].path,
           timing.OnTime + timing.Late, timing.Late, (double)timing.LatenessMaxNs / 1000);
  }
  for (size_t i = 0; i < count; ++i) {
    if (IpPlayoutClose(playouts[i]) != IPPLAYOUT_DONE) {
      fprintf(stderr, "%s\n", IpPlayoutError());
      result = 1;
    }
  }
  return result;
}
