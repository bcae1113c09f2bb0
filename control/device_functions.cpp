// SPDX-License-Identifier: MIT
// The exported device list.
#include <exception>

#include "control/library.h"
#include "ipplayout/ipplayout.h"

using ipplayout::TheLibrary;

int CreateListOfDevices() {
  try {
    TheLibrary().parts.devices.CreateArray();
    return 1;
  } catch (const std::exception&) {
    return 0;  // no memory; the earlier array stands
  }
}

const DeviceListEntry* GetListOfDevices(int* count) {
  if (count != nullptr) {
    *count = TheLibrary().parts.devices.Size();
  }
  return TheLibrary().parts.devices.Array();
}

int DeleteListOfDevices() {
  TheLibrary().parts.devices.DeleteArray();
  return 1;
}
