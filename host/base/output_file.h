// SPDX-License-Identifier: MIT
// A file that appears under its name only when it is whole. All files that ipplay writes go through
// here.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "host/base/file_descriptor.h"
#include "host/base/result.h"

namespace ipplay {

// What is written goes to a new file in the same folder first, which then takes the name; a link
// that lies there is not followed. Devices, FIFOs and descriptors (/dev/stdout) are written to as
// they are.
class OutputFile {
 public:
  // Finds out whether `path` can be written, and leaves nothing behind. `option` is the one that
  // names the file.
  static Result<OutputFile> Create(const std::string& option, const std::string& path);

  // Writes the text, in place of what an older file holds. What fails leaves that as it was.
  std::optional<Failure> Commit(std::string_view text) const;

 private:
  OutputFile(std::string option, std::string path)
      : option_(std::move(option)), path_(std::move(path)) {}

  std::optional<Failure> Prepare();
  std::optional<Failure> OpenSpecial(unsigned owner);
  FileDescriptor CreateTemporary(std::string& name) const;
  Failure Refusal(ExitStatus status, std::string_view why) const;

  std::string option_;
  std::string path_;
  std::string name_;        // within the folder
  unsigned mode_ = 0644;    // as far as the umask allows
  FileDescriptor folder_;   // of a file
  FileDescriptor special_;  // of anything else
};

}  // namespace ipplay
