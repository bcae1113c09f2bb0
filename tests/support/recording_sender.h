// The end of a chain of layers: keeps what it is sent.
#pragma once

#include <cstddef>
#include <limits>
#include <vector>

#include "protocol/pdu.h"
#include "protocol/sender.h"
#include "tests/support/bytes.h"

namespace ipplayout {

class RecordingSender final : public Sender {
 public:
  bool Send(PDU& frame) override {
    if (frames.size() == accept) {
      return false;
    }
    frames.emplace_back(frame.Data(), frame.Data() + frame.Length());
    return true;
  }
  std::uint32_t GetHeaderLength() const override { return 0; }

  std::vector<Bytes> frames;
  std::size_t accept = std::numeric_limits<std::size_t>::max();  // frames until one is refused
};

}  // namespace ipplayout
