// SPDX-License-Identifier: MIT
// A packet socket that sends whole frames out of one adapter.
#pragma once

#include "platform/descriptor.h"

namespace ipplayout {

// Receives nothing and never blocks. Its frames go straight to the device, past its queueing
// discipline and past other capturing sockets; where the kernel has no such option they take the
// ordinary way. Not open, with errno set, where the system refuses: without CAP_NET_RAW, or when
// the adapter is gone.
platform::Descriptor OpenPacketSocket(unsigned interface_index);

}  // namespace ipplayout
