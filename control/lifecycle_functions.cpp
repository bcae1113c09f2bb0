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
  try {
    TheLibrary().playout.Initialise();
  } catch (const std::exception&) {
    TheLibrary().parts.devices.Clear();
  }
  return 1;
}

int IPStart() {
  try {
    return TheLibrary().playout.Start();
  } catch (const std::exception&) {
    return Playout::kFailed;
  }
}

int IPWrite(const void* data, uint16_t count) {
  constexpr std::uint32_t kUnit = 4;
  if (data == nullptr) {
    return count == 0 ? 0 : Playout::kFailed;
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
    TheLibrary().parts.pump.AddCompletionEvent(*event);
  } catch (const std::exception&) {
    return 0;
  }
  return 1;
}

intptr_t GetIPStopEvent() {
  return TheLibrary().playout.StopEvent();
}

int CleanupIpPlayout() {
  TheLibrary().playout.CleanUp();
  return 1;
}
