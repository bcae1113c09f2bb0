// The parts of the one library object that exported functions reach for by themselves.
#pragma once

#include "devices/device_list.h"

namespace ipplayout {

DeviceList& LibraryDevices();

}  // namespace ipplayout
