// SPDX-License-Identifier: MIT
// The machine's own name and address.
#pragma once

#include "platform/addresses.h"

namespace ipplayout::platform {

// The first IPv4 address of the machine's host name that is not a loopback address, which is what
// many installations give the name in /etc/hosts. When the name has none: the first IPv4 address of
// the machine's interfaces except loopback, and without one 127.0.0.1. May ask the name service.
Ipv4Address HostAddress();

}  // namespace ipplayout::platform
