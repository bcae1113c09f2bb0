// SPDX-License-Identifier: MIT
#include "host/play/written_files.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "host/base/text.h"

namespace ipplay {
namespace {

struct WrittenFile {
  const char* option;
  std::string path;
};

// Devices and pipes take whatever is written to them.
bool IsPlain(const std::string& path) {
  std::error_code error;
  const auto type = std::filesystem::status(path, error).type();
  return type == std::filesystem::file_type::regular ||
         type == std::filesystem::file_type::not_found;
}

std::vector<WrittenFile> FilesOf(const PlayOptions& options) {
  std::vector<WrittenFile> files{{"--into", options.into}};
  for (const PlayOptions::Place& place : options.also_to) {
    files.push_back({"--to", place.into});
  }
  files.insert(files.end(), {{"--ledger", options.ledger},
                             {"--sdp", options.sdp},
                             {"--write-config", options.write_config}});
  std::erase_if(files,
                [](const WrittenFile& file) { return file.path.empty() || !IsPlain(file.path); });
  return files;
}

bool IsSame(const std::string& one, const std::string& other) {
  std::error_code error;
  return one == other || std::filesystem::equivalent(one, other, error);
}

}  // namespace

bool IsInput(const PlayOptions& options, const std::string& path) {
  const auto is_same = [&path](const std::string& input) { return IsSame(input, path); };
  return is_same(options.input) || std::ranges::any_of(options.then, is_same);
}

std::optional<Failure> CheckWrittenFiles(const PlayOptions& options) {
  const std::vector<WrittenFile> files = FilesOf(options);
  for (auto file = files.begin(); file != files.end(); ++file) {
    if (IsInput(options, file->path)) {
      return UsageFailure(
          fmt::format("{} {} is INPUT; give another file", file->option, QuotedLine(file->path)));
    }
    const auto same = std::find_if(files.begin(), file, [&file](const WrittenFile& earlier) {
      return IsSame(earlier.path, file->path);
    });
    if (same != file) {
      return UsageFailure(fmt::format("{} {} is the file of {}; give another one", file->option,
                                      QuotedLine(file->path), same->option));
    }
  }
  return std::nullopt;
}

}  // namespace ipplay
