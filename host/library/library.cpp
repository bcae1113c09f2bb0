// SPDX-License-Identifier: MIT
#include "host/library/library.h"

#include "host/base/library_output.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {

Library::Library() {
  {
    // A line for every adapter and address, which is no news to a user of ipplay.
    const LibrarySilence silence(LibrarySilence::Of::kOutput);
    InitIpPlayout();
  }
  adapters_ = ListAdapters();
}

Library::~Library() {
  CleanupIpPlayout();
}

}  // namespace ipplay
