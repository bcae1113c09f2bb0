// SPDX-License-Identifier: MIT
#include "control/parts.h"

#include "control/settings_store.h"

namespace ipplayout {
Parts::Parts(CaptureDriver& driver)
    : data_buffer(kDataBufferSize),
      errors(Settings().params.ProtocolMode, platform::ProcessRandom()),
      devices(driver) {
  pump.SetPayloadSource(&data_buffer);
  pump.SetErrorManager(&errors);
  pump.SetReplicationManager(&replication);
  pump.SetParametricManager(&parametric);
  transmitter.SetParametricManager(&parametric);
}

}  // namespace ipplayout
