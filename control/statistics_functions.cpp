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
    TheLibrary().pump.GetStatistics(out);
  }
  return 1;
}

int GetErrorInsertionStatistics() {
  return 1;
}

void ClearStatistics() {
  TheLibrary().pump.ClearStatistics();
  TheLibrary().errors.ClearStatistics();
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
  TheLibrary().errors.GeneratePacketLoss();
  return 1;
}

int GenerateSequenceError() {
  TheLibrary().errors.GenerateSequenceError();
  return 1;
}

int GenerateIPChecksumError() {
  TheLibrary().errors.GenerateIPChecksumError();
  return 1;
}

int GenerateUDPChecksumError() {
  TheLibrary().errors.GenerateUDPChecksumError();
  return 1;
}
