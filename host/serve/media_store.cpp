// SPDX-License-Identifier: MIT
#include "host/serve/media_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

#include "host/base/text.h"

namespace ipplay::serve {
namespace {

constexpr int kDeepest = 8;

// Without a way out: no "..", no absolute path, no link of any kind.
FileDescriptor OpenBeneath(int folder, const std::string& path, std::uint64_t flags) {
  open_how how{};
  how.flags = flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return FileDescriptor(
      static_cast<int>(::syscall(SYS_openat2, folder, path.c_str(), &how, sizeof how)));
}

MediaEntry EntryOf(const std::string& path, const struct stat& info) {
  return {path, static_cast<std::uint64_t>(info.st_size),
          std::int64_t{info.st_mtim.tv_sec} * 1'000'000'000 + info.st_mtim.tv_nsec};
}

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

class Walk {
 public:
  explicit Walk(MediaStore::Listing& listing) : listing_(listing) {}

  void Run(int folder, const std::string& path, int depth) {
    FileDescriptor fd = OpenBeneath(folder, ".", O_RDONLY | O_DIRECTORY);
    const Directory directory(fd.IsOpen() ? ::fdopendir(fd.Get()) : nullptr, ::closedir);
    if (!directory) {
      return;
    }
    const int here = fd.Release();
    while (const dirent* const entry = ::readdir(directory.get())) {
      if (entry->d_name[0] != '.') {
        Take(here, path, &entry->d_name[0], depth);
      }
    }
  }

 private:
  void Take(int folder, const std::string& path, const std::string& name, int depth) {
    struct stat info {};
    if (::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
      return;
    }
    const std::string whole = path + "/" + name;
    if (S_ISDIR(info.st_mode) && depth < kDeepest) {
      const FileDescriptor below = OpenBeneath(folder, name, O_RDONLY | O_DIRECTORY);
      if (below.IsOpen()) {
        Run(below.Get(), whole, depth + 1);
      }
    } else if (S_ISREG(info.st_mode)) {
      if (listing_.entries.size() >= MediaStore::kMostListed || QuotedLine(name) != name) {
        ++listing_.left_out;
      } else {
        listing_.entries.push_back(EntryOf(whole, info));
      }
    }
  }

  MediaStore::Listing& listing_;
};

}  // namespace

Result<MediaStore> MediaStore::Open(const std::vector<std::string>& folders) {
  MediaStore store;
  for (const std::string& folder : folders) {
    const auto refuse = [&folder](const std::string& why) {
      return UsageFailure(fmt::format("--media {}: {}", folder, why));
    };
    std::error_code error;
    const std::filesystem::path real = std::filesystem::canonical(folder, error);
    FileDescriptor fd(error ? -1 : ::open(real.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!fd.IsOpen()) {
      return refuse(error ? error.message() : std::strerror(errno));
    }
    const std::string name = real.filename();
    if (name.empty() || QuotedLine(name) != name) {
      return refuse("has no name that could be shown; give a folder below it");
    }
    if (!store.folders_.emplace(name, Folder{real, std::move(fd)}).second) {
      return refuse(fmt::format("another folder is called {}, too; rename one", name));
    }
  }
  return store;
}

std::vector<std::string> MediaStore::Folders() const {
  std::vector<std::string> names;
  for (const auto& [name, folder] : folders_) {
    names.push_back(name);
  }
  return names;
}

MediaStore::Listing MediaStore::List() const {
  Listing listing;
  for (const auto& [name, folder] : folders_) {
    Walk(listing).Run(folder.fd.Get(), name, 0);
  }
  std::ranges::sort(listing.entries, {}, &MediaEntry::path);
  return listing;
}

Result<MediaFile> MediaStore::OpenFile(const std::string& path) const {
  const auto refuse = [&path](const std::string& why) {
    return UsageFailure(
        fmt::format("--input: \"{}\" {}; give FOLDER/FILE as /api/v1/media lists it, or a live "
                    "stream as udp://239.1.1.1:5004",
                    QuotedLine(path), why));
  };
  const std::size_t slash = path.find('/');
  const auto folder = folders_.find(path.substr(0, slash));
  if (slash == std::string::npos || folder == folders_.end()) {
    return refuse("is in none of the media folders");
  }
  const std::string below = path.substr(slash + 1);
  if (below.find('\0') != std::string::npos) {
    return refuse("is no path");
  }
  FileDescriptor fd = OpenBeneath(folder->second.fd.Get(), below, O_RDONLY);
  struct stat info {};
  if (!fd.IsOpen() || ::fstat(fd.Get(), &info) != 0) {
    return refuse(errno == ELOOP || errno == EXDEV ? "leads out of its folder or through a link"
                                                   : std::strerror(errno));
  }
  if (!S_ISREG(info.st_mode)) {
    return refuse("is not a regular file");
  }
  return MediaFile{std::move(fd), EntryOf(path, info), folder->second.real_path + "/" + below};
}

std::string MediaStore::PathOf(const FileDescriptor& fd) {
  return fmt::format("/proc/self/fd/{}", fd.Get());
}

}  // namespace ipplay::serve
