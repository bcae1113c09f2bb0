// SPDX-License-Identifier: MIT
// A file of lines that others read while it is written.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "host/base/output_file.h"

namespace ipplay {

class LineFile {
 public:
  // The file is there from now on, empty, in place of an older one. `option` names it.
  static Result<LineFile> Create(const std::string& option, const std::string& path) {
    auto file = OutputFile::Create(option, path);
    if (!file) {
      return file.Error();
    }
    auto fd = file->Open();
    if (!fd) {
      return fd.Error();
    }
    return LineFile(std::move(*file), std::move(*fd));
  }

  // Whole lines, with their ends. After a failure nothing more is written.
  void Write(std::string_view lines) {
    if (!failure_) {
      failure_ = file_.Append(fd_, lines);
    }
  }
  // The first one.
  const std::optional<Failure>& WriteFailure() const { return failure_; }

 private:
  LineFile(OutputFile file, FileDescriptor fd) : file_(std::move(file)), fd_(std::move(fd)) {}

  OutputFile file_;
  FileDescriptor fd_;
  std::optional<Failure> failure_;
};

}  // namespace ipplay
