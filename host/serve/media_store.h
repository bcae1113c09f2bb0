// SPDX-License-Identifier: MIT
// The folders whose files may be played over HTTP, and nothing else of the file system.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/base/file_descriptor.h"
#include "host/base/result.h"

namespace ipplay::serve {

struct MediaEntry {
  std::string path;  // FOLDER/FILE
  std::uint64_t bytes = 0;
  std::int64_t modified_ns = 0;  // since 1970
};

struct MediaFile {
  FileDescriptor fd;
  MediaEntry entry;
  std::string real_path;  // as a command line would have it
};

// Files are opened below the folder's descriptor and used through theirs: a link in a folder, or
// one that is put there meanwhile, leads nowhere. Any thread may call any function.
class MediaStore {
 public:
  static constexpr std::size_t kMostListed = 10'000;

  // Each is known by the last part of its path; two of one name are refused.
  static Result<MediaStore> Open(const std::vector<std::string>& folders);

  std::vector<std::string> Folders() const;

  struct Listing {
    std::vector<MediaEntry> entries;  // in the order of paths
    std::uint64_t left_out = 0;       // beyond kMostListed, and those whose names are no UTF-8
  };
  Listing List() const;

  // A regular file by its path; the failure names it.
  Result<MediaFile> OpenFile(const std::string& path) const;

  // What the descriptor's file is opened by.
  static std::string PathOf(const FileDescriptor& fd);

 private:
  struct Folder {
    std::string real_path;
    FileDescriptor fd;
  };

  std::map<std::string, Folder> folders_;
};

}  // namespace ipplay::serve
