// The library's one set of long-lived objects.
#pragma once

#include "control/playout.h"
#include "payload/data_buffer.h"
#include "payload/data_pump.h"
#include "payload/error_insertion_manager.h"
#include "transmit/parametric_manager.h"
#include "protocol/replication_manager.h"
#include "devices/device_list.h"
#include "transmit/packet_transmitter.h"

namespace ipplayout {

// Built when the library is loaded, in this order, and destroyed when it is unloaded; a playout
// that still runs then is stopped first.
struct Library {
  static constexpr std::uint32_t kDataBufferSize = 64 * 1024 * 1024;

  // `driver` outlives the library.
  explicit Library(CaptureDriver& driver);

  CIPDataBuffer data_buffer;
  ZEBIPDataPump pump;
  PacketTransmitterThread transmitter;
  CErrorInsertionManager errors;
  CZebReplicationMgr replication;
  CZebParametricManager parametric;
  DeviceList devices;
  Playout playout;
};

Library& TheLibrary();

}  // namespace ipplayout
