// SPDX-License-Identifier: MIT
#include "control/library.h"

#include <unistd.h>

namespace ipplayout {
namespace {

// A child process made by fork has the objects but not the threads that they wait for: it leaves
// them alone.
class LoadedLibrary {
 public:
  LoadedLibrary() : library_(new Library(PlatformDriver())), process_(::getpid()) {}
  LoadedLibrary(const LoadedLibrary&) = delete;
  LoadedLibrary& operator=(const LoadedLibrary&) = delete;
  ~LoadedLibrary() {
    if (process_ == ::getpid()) {
      delete library_;
    }
  }

  Library& Get() { return *library_; }

 private:
  Library* library_;
  pid_t process_;
};

// Throws while the library is being loaded if memory runs out; there is no caller to return an
// error to.
LoadedLibrary loaded;  // NOLINT(cert-err58-cpp)

}  // namespace

Library& TheLibrary() {
  return loaded.Get();
}

}  // namespace ipplayout
