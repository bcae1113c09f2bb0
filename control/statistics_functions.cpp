// SPDX-License-Identifier: MIT
// The exported statistics and one-shot error requests.
#include "control/library.h"
#include "ipplayout/ipplayout.h"

using ipplayout::TheLibrary;

namespace {

TSStatistics ts_statistics{};
IPStatistics ip_statistics{};

}  // namespace

int GetPlayoutStatistics(PlayoutStatistics* out) {
  if (out != nullptr) {
    TheLibrary().parts.pump.GetStatistics(out);
  }
  return 1;
}

int GetErrorInsertionStatistics() {
  return 1;
}

void ClearStatistics() {
  TheLibrary().parts.pump.ClearStatistics();
  TheLibrary().parts.errors.ClearStatistics();
}

TSStatistics* GetTSStats() {
  return &ts_statistics;
}

IPStatistics* GetStats() {
  return &ip_statistics;
}

IPStatistics* GetIPStats() {
  return GetStats();
}

int GeneratePacketLoss() {
  TheLibrary().parts.errors.GeneratePacketLoss();
  return 1;
}

int GenerateSequenceError() {
  TheLibrary().parts.errors.GenerateSequenceError();
  return 1;
}

int GenerateIPChecksumError() {
  TheLibrary().parts.errors.GenerateIPChecksumError();
  return 1;
}

int GenerateUDPChecksumError() {
  TheLibrary().parts.errors.GenerateUDPChecksumError();
  return 1;
}
