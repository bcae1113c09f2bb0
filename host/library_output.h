// The library prints a few messages on descriptors 1 and 2. Results of ipplay must not be mixed
// with them.
#pragma once

#include <cstdio>

#include "host/file_descriptor.h"

namespace ipplay {

// The standard output that the user gave, for results. The first call moves it to another
// descriptor and points descriptor 1 at standard error, so main() makes it before all else.
std::FILE* Results();

// While it lives, messages of the library go nowhere.
class LibrarySilence {
 public:
  enum class Of { kOutput, kOutputAndErrors };

  explicit LibrarySilence(Of what);
  LibrarySilence(const LibrarySilence&) = delete;
  LibrarySilence& operator=(const LibrarySilence&) = delete;
  ~LibrarySilence();

 private:
  FileDescriptor saved_output_;
  FileDescriptor saved_errors_;
};

}  // namespace ipplay
