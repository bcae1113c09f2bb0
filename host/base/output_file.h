// SPDX-License-Identifier: MIT
// A file that appears under its name only once it is complete. All files that ipplay writes go
// through here.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "host/base/file_descriptor.h"
#include "host/base/result.h"

namespace ipplay {

// The text goes to a new file in the same folder, which then takes the name; a link of that name is
// not followed. Devices, FIFOs and descriptors (/dev/stdout) are written to directly.
class OutputFile {
 public:
  // Checks that `path` can be written, and leaves nothing behind. `option` names the file. An older
  // file is replaced only if it starts with `only_over`.
  static Result<OutputFile> Create(const std::string& option, const std::string& path,
                                   std::string_view only_over = {});

  // Writes the text, replacing an older file. A failure leaves that file as it was.
  std::optional<Failure> Commit(std::string_view text) const;

  // For what others read while it is written: an empty file takes the name at once, and Append
  // writes to its end.
  Result<FileDescriptor> Open() const;
  std::optional<Failure> Append(const FileDescriptor& fd, std::string_view text) const;

 private:
  OutputFile(std::string option, std::string path, std::string_view only_over);

  std::optional<Failure> Prepare();
  std::optional<Failure> OpenSpecial(unsigned owner);
  bool MayReplace() const;
  FileDescriptor CreateTemporary(std::string& name) const;
  Failure Refusal(ExitStatus status, std::string_view why) const;

  std::string option_;
  std::string path_;
  std::string only_over_;
  std::string name_;    // within the folder
  unsigned owner_ = 0;  // who asked for it, whoever writes it
  unsigned group_ = 0;
  unsigned mode_ = 0644;    // as far as the umask allows
  FileDescriptor folder_;   // of a file
  FileDescriptor special_;  // of anything else
};

}  // namespace ipplay
