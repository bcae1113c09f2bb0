// SPDX-License-Identifier: MIT
// What an Ethernet adapter offers: to the protocol chain a last Sender, to others whole frames.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "protocol/error_manager_base.h"
#include "protocol/sender.h"
#include "transmit/packet.h"
#include "transmit/parametric_manager.h"

namespace ipplayout {

// The receiving side and the sending of shared frames. The playout uses neither.
class EthernetInterface {
 public:
  // The next received frame, or null when none came within `timeout`.
  virtual std::shared_ptr<MacPacket> Receive(std::chrono::milliseconds timeout) = 0;
  // True when the adapter took the frame.
  virtual bool SendShared(const std::shared_ptr<MacPacket>& frame) = 0;

 protected:
  ~EthernetInterface() = default;
};

class EthernetRTInterface : public Sender, public EthernetInterface {
 public:
  // Opens the adapter for sending and capture. False when that fails or it is not Ethernet.
  virtual bool Open() = 0;
  // Makes an open adapter ready for a playout. False when it is not open or refuses the filter.
  virtual bool FilterInclude() = 0;
  virtual void Close() = 0;
  // With `discard`, reads until nothing is left to read and returns false; else returns true.
  virtual bool DiscardReceived(bool discard) = 0;
  virtual void SetErrorInsertionManager(CErrorManagerBase* manager) = 0;
  virtual bool SetParametricManager(CParametricManagerBase* manager) = 0;
  virtual const std::vector<std::uint8_t>& GetMacAddress() const = 0;
};

}  // namespace ipplayout
