// The exported device list.
#include <exception>

#include "control/library_parts.h"
#include "ipplayout/ipplayout.h"

using ipplayout::LibraryDevices;

int CreateListOfDevices() {
  try {
    LibraryDevices().CreateArray();
    return 1;
  } catch (const std::exception&) {
    return 0;  // no memory; the earlier array stands
  }
}

const DeviceListEntry* GetListOfDevices(int* count) {
  if (count != nullptr) {
    *count = LibraryDevices().Size();
  }
  return LibraryDevices().Array();
}

int DeleteListOfDevices() {
  LibraryDevices().DeleteArray();
  return 1;
}
