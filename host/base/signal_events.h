// SPDX-License-Identifier: MIT
// Signals of the user and the terminal, read as events.
#pragma once

#include <optional>

#include "host/base/file_descriptor.h"

namespace ipplay {

enum class Interruption { kCtrlC, kOtherSignal };

class SignalEvents {
 public:
  // Blocks SIGINT, SIGTERM, SIGHUP and SIGCONT in the calling thread. Create it before other
  // threads start, so that none of them receives these signals.
  SignalEvents();

  // Readable when a signal has arrived.
  int Get() const { return fd_.Get(); }
  // The order to stop among the signals that have arrived; none if the job only continued. Signals
  // that arrived together count as one.
  std::optional<Interruption> Take() const;
  // From here on a signal ends the process at once. SIGHUP stays blocked: a closing terminal may
  // send it twice, and the second one must not kill us.
  static void LetSignalsKill();

 private:
  FileDescriptor fd_;
};

}  // namespace ipplay
