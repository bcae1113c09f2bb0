// A file that appears under its name only when it is whole.
#pragma once

#include <string>
#include <string_view>

#include "host/file_descriptor.h"
#include "host/result.h"

namespace ipplay::measure {

class OutputFile {
 public:
  // Creates the file under another name beside `path`. Fails where `path` is something else than a
  // regular file, or cannot be written.
  static Result<OutputFile> Create(const std::string& path);
  OutputFile(OutputFile&& other) noexcept = default;
  OutputFile& operator=(OutputFile&& other) noexcept = default;
  // Removes what was not committed.
  ~OutputFile();

  // Writes the text and gives the file its name, in place of an older one.
  bool Commit(std::string_view text);

 private:
  OutputFile(FileDescriptor fd, std::string path, std::string temporary)
      : fd_(std::move(fd)), path_(std::move(path)), temporary_(std::move(temporary)) {}

  FileDescriptor fd_;
  std::string path_;
  std::string temporary_;  // empty once it has its name
};

}  // namespace ipplay::measure
