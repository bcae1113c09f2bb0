// SPDX-License-Identifier: MIT
// One stage of the chain that turns a payload into a frame on the wire.
#pragma once

#include <cstdint>

namespace ipplayout {

class PDU;

// Called by the data pump thread only.
class Sender {
 public:
  virtual ~Sender() = default;

  // Writes this stage's header into `frame` and passes the frame on. True when it was accepted
  // below, or dropped or held back on purpose; false when a stage below failed.
  virtual bool Send(PDU& frame) = 0;

  // Bytes of header that this stage and those below it put in front of what they are given.
  virtual std::uint32_t GetHeaderLength() const = 0;
};

}  // namespace ipplayout
