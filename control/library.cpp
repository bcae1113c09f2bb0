#include "control/library.h"

#include <unistd.h>

#include "control/library_parts.h"

namespace ipplayout {
namespace {

bool SequenceErrorsAllowed() {
  return Settings().params.ProtocolMode == 1;
}

// A child process made by fork has the objects but not the threads that they wait for: it leaves
// them alone.
class LoadedLibrary {
 public:
  LoadedLibrary() : library_(new Library(PlatformDriver())), process_(getpid()) {}
  LoadedLibrary(const LoadedLibrary&) = delete;
  LoadedLibrary& operator=(const LoadedLibrary&) = delete;
  ~LoadedLibrary() {
    if (process_ == getpid()) {
      delete library_;
    }
  }

  Library& Get() { return *library_; }

 private:
  Library* library_;
  pid_t process_;
};

// Without memory for it the library cannot be loaded: there is nobody to tell yet.
LoadedLibrary loaded;  // NOLINT(cert-err58-cpp)

}  // namespace

Library::Library(CaptureDriver& driver)
    : data_buffer(kDataBufferSize),
      errors(&SequenceErrorsAllowed),
      devices(driver),
      playout(*this) {
  pump.SetPayloadSource(&data_buffer);
}

Library& TheLibrary() {
  return loaded.Get();
}

DeviceList& LibraryDevices() {
  return TheLibrary().devices;
}

}  // namespace ipplayout
