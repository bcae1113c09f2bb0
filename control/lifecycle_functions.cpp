// SPDX-License-Identifier: MIT
// The exported lifecycle. What goes wrong inside reaches the host as a result, never as an
// exception: only memory can run out here.
#include <exception>

#include "control/library.h"
#include "ipplayout/ipplayout.h"

using ipplayout::Playout;
using ipplayout::TheLibrary;

int InitIpPlayout() {
  *GetTSStats() = {};
  *GetStats() = {};
  TheLibrary().playout.Initialise();
  return 1;
}

int IPStart() {
  try {
    return TheLibrary().playout.Start();
  } catch (const std::exception&) {
    return IPPLAYOUT_FAILED;
  }
}

int IPWrite(const void* data, uint16_t count) {
  constexpr std::uint32_t kUnit = 4;
  if (data == nullptr && count > 0) {
    return IPPLAYOUT_FAILED;
  }
  return TheLibrary().playout.Write(static_cast<const std::uint8_t*>(data), count * kUnit);
}

int IPWriteTerminate() {
  try {
    TheLibrary().playout.WriteTerminate();
  } catch (const std::exception&) {
    TheLibrary().parts.pump.WaitUntilComplete();
  }
  return 0;
}

int IPPause(uint32_t pause) {
  TheLibrary().parts.pump.Pause(pause == 1);
  return 1;
}

void IPStop() {
  TheLibrary().playout.Stop();
}

void IPStopImmediate() {
  TheLibrary().playout.Stop();
}

int IsPlayoutComplete() {
  return TheLibrary().parts.pump.IsComplete() ? 1 : 0;
}

int RegisterForIPPlayoutCompletion(const intptr_t* event) {
  if (event == nullptr) {
    return 1;
  }
  try {
    return TheLibrary().parts.pump.RegisterCompletionEvent(*event) ? 1 : 0;
  } catch (const std::exception&) {
    return 0;
  }
}

intptr_t GetIPStopEvent() {
  return TheLibrary().playout.StopEvent();
}

int CleanupIpPlayout() {
  TheLibrary().playout.CleanUp();
  return 1;
}
