// SPDX-License-Identifier: MIT
#include "host/serve/page_files.h"

#include <algorithm>

namespace ipplay::serve {

const PageFile* FindPageFile(std::string_view path) {
  const auto files = PageFiles();
  const auto found = std::ranges::find(files, path, &PageFile::path);
  return found == files.end() ? nullptr : &*found;
}

}  // namespace ipplay::serve
