// SPDX-License-Identifier: MIT
// The page's files, which are part of the program: those of host/serve/page, and dygraphs as Debian
// has it.
#pragma once

#include <span>
#include <string_view>

namespace ipplay::serve {

struct PageFile {
  std::string_view path;  // below /page: "app.js", "dygraphs/dygraph.min.js"
  std::string_view content_type;
  std::string_view etag;  // with its quotes
  std::string_view content;
};

// In the order of paths.
std::span<const PageFile> PageFiles();
const PageFile* FindPageFile(std::string_view path);  // or null

}  // namespace ipplay::serve
