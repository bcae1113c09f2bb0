// SPDX-License-Identifier: MIT
#include "host/library/library.h"

#include "host/base/library_output.h"
#include "ipplayout/ipplayout.h"

namespace ipplay {

Library::Library() {
  {
    // It prints a line for every adapter and address; `ipplay devices` shows them better.
    const LibrarySilence silence(LibrarySilence::Of::kOutput);
    InitIpPlayout();
  }
  adapters_ = ListAdapters();
}

Library::~Library() {
  CleanupIpPlayout();
}

}  // namespace ipplay
