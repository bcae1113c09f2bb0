// SPDX-License-Identifier: MIT
// The one process-wide set of settings, as the accessors of the interface fill it and a start reads
// it. It takes no lock: it belongs to the host's control thread.
#pragma once

#include <cstdint>

#include "ipplayout/ipplayout.h"

namespace ipplayout {

struct PlayoutSettings {
  // Cleared by every initialisation.
  IPPlayParams params;
  ErrorInsertion error_insertion;
  ParametricSettings parametric;
  IPOtherSettings other;

  // Zero when the library is loaded, and the host's from then on. Named as their accessors.
  TTSSettings tts;
  std::uint64_t PlayFileSizeForIP;
  std::uint32_t TSPacketSize;
  std::uint32_t IPEnabled;
  std::uint32_t IPBitRateChosen;
  double IPBitRate;
};

// Lives as long as the library is loaded; hosts hold pointers into it.
PlayoutSettings& Settings();

// Clears what InitIpPlayout clears.
void ResetForInit();

}  // namespace ipplayout
