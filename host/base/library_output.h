// SPDX-License-Identifier: MIT
// The library prints a few messages on descriptors 1 and 2. Results of ipplay must not be mixed
// with them.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "host/base/file_descriptor.h"
#include "host/base/text.h"

namespace ipplay {

// The standard output that the user gave, for results. The first call moves it to another
// descriptor and points descriptor 1 at standard error, so main() makes it before all else.
std::FILE* Results();

// What is a string is quoted (see Quoted), since it may be anybody's.
template <typename Argument>
decltype(auto) Printable(Argument&& argument) {
  if constexpr (std::is_convertible_v<Argument, std::string_view>) {
    return Quoted(argument);
  } else {
    return std::forward<Argument>(argument);
  }
}

// Prints as fmt::print does; only the format itself controls a terminal. Write errors are ignored
// (see FateOfResults).
template <typename... Arguments>
void Print(std::FILE* file, fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  const std::string text =
      fmt::format(fmt::runtime(format), Printable(std::forward<Arguments>(arguments))...);
  std::fwrite(text.data(), 1, text.size(), file);
}

// What became of all results so far. A terminal that is gone counts as written to; a reader that
// has closed its pipe, as `head` does, knows what it did.
enum class ResultsFate { kWritten, kUnread, kLost };
ResultsFate FateOfResults();

// Discards the library's messages during its lifetime.
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
