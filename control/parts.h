// SPDX-License-Identifier: MIT
// The long-lived objects of the library.
#pragma once

#include "devices/device_list.h"
#include "payload/data_buffer.h"
#include "payload/data_pump.h"
#include "payload/error_insertion_manager.h"
#include "protocol/replication_manager.h"
#include "transmit/packet_transmitter.h"
#include "transmit/parametric_manager.h"

namespace ipplayout {

// Built when the library is loaded, in this order, and destroyed when it is unloaded. They are
// wired to each other once, here; what changes from playout to playout is the playout's business.
struct Parts {
  static constexpr std::uint32_t kDataBufferSize = 64 * 1024 * 1024;

  // `driver` outlives the parts.
  explicit Parts(CaptureDriver& driver);

  CIPDataBuffer data_buffer;
  ZEBIPDataPump pump;
  PacketTransmitterThread transmitter;
  CErrorInsertionManager errors;
  CZebReplicationMgr replication;
  CZebParametricManager parametric;
  DeviceList devices;
};

}  // namespace ipplayout
