// SPDX-License-Identifier: MIT
// A picture of each service of a file, which ffmpeg makes where it is installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "host/serve/http_message.h"
#include "host/serve/media_store.h"

namespace ipplay::serve {

// Any thread may ask. Few pictures are made at once: a second one waits for nobody, and the
// processor has playouts to drive.
class Thumbnails {
 public:
  static constexpr std::size_t kMostAtOnce = 2;
  static constexpr std::size_t kMostKept = 256;

  Thumbnails();

  // For the query's `service`.
  HttpResponse Get(const MediaFile& file, const HttpRequest& request);
  // Where it is asked for.
  static std::string AddressOf(const std::string& path, std::uint64_t service);

 private:
  struct Picture {
    std::string key;   // of the service of a file as it is now
    std::string jpeg;  // empty where there is none
  };

  // To make a picture, if it is not that of too many others.
  class Turn {
   public:
    explicit Turn(Thumbnails& all);
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn();

    bool IsMine() const { return is_mine_; }

   private:
    Thumbnails& all_;
    bool is_mine_ = false;
  };

  std::optional<std::string> Find(const std::string& key);
  void Keep(Picture picture);

  const std::string ffmpeg_;  // empty where it is not installed
  std::mutex mutex_;
  std::deque<Picture> kept_;    // the newest last; guarded by mutex_
  std::size_t being_made_ = 0;  // guarded by mutex_
};

}  // namespace ipplay::serve
