// SPDX-License-Identifier: MIT
#include "host/serve/thumbnails.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <sstream>
#include <utility>
#include <vector>

#include "host/base/bounded_program.h"
#include "host/base/memory_file.h"
#include "host/base/name_hash.h"
#include "host/base/numbers.h"
#include "host/stream/open_input.h"
#include "host/stream/stream_facts.h"

namespace ipplay::serve {
namespace {

constexpr std::size_t kLookedThrough = std::size_t{16} << 20;
constexpr ProgramBounds kBounds{std::chrono::seconds(10), std::uint64_t{2} << 30,
                                std::uint64_t{1} << 20};
constexpr std::uint64_t kHighestService = 0xFFFF;

// The beginning of the stream, from its first packet on, without what it was captured in. Empty
// where that is no stream.
std::vector<std::uint8_t> BeginningOf(const MediaFile& file) {
  auto input = OpenInput(MediaStore::PathOf(file.fd), {}, -1);
  if (!input || !Examine(*input, {})) {
    return {};
  }
  std::vector<std::uint8_t> bytes(kLookedThrough);
  bytes.resize(input->ReadFully(bytes));
  return bytes;
}

// Of the first frame that needs no other one, at most 320 by 180. Empty where there is none,
// nothing where that took too long to find out.
std::optional<std::string> PictureOf(const FileDescriptor& stream, const std::string& ffmpeg,
                                     std::uint64_t service) {
  const std::string options = fmt::format(
      "ffmpeg -nostdin -v quiet -threads 1 -protocol_whitelist pipe -skip_frame nokey -f mpegts -i "
      "pipe:0 -map 0:p:{}:v:0 -frames:v 1 -filter_threads 1 -vf "
      "scale=w='max(2,min(320,trunc(90*dar)*2))':h=180,setsar=1 -threads 1 -f mjpeg -q:v 4 pipe:1",
      service);
  std::istringstream words(options);
  auto outcome = RunBounded({.words = {std::istream_iterator<std::string>(words), {}},
                             .path = ffmpeg,
                             .input = stream.Get()},
                            kBounds);
  if (!outcome) {
    return std::nullopt;
  }
  return outcome->status == 0 ? std::move(outcome->output) : std::string();
}

// As PictureOf.
std::optional<std::string> MakePicture(const MediaFile& file, const std::string& ffmpeg,
                                       std::uint64_t service) {
  const auto beginning = BeginningOf(file);
  if (beginning.empty()) {
    return "";
  }
  const FileDescriptor stream = CreateMemoryFile("stream", OnExec::kClose);
  if (!WriteAll(stream, beginning) || ::lseek(stream.Get(), 0, SEEK_SET) != 0) {
    return std::nullopt;
  }
  return PictureOf(stream, ffmpeg, service);
}

// Of a service of a file as it is now, whatever stands under its name later.
std::string KeyOf(const MediaFile& file, std::uint64_t service) {
  struct stat info {};
  ::fstat(file.fd.Get(), &info);
  return fmt::format("{} {} {} {} {}.{} {}", service, info.st_dev, info.st_ino, info.st_size,
                     info.st_ctim.tv_sec, info.st_ctim.tv_nsec, file.entry.path);
}

HttpResponse AskAgain(const std::string& why) {
  HttpResponse response = ErrorResponse(HttpStatus::kTooBusy, why + "; ask again");
  response.headers.emplace_back("Retry-After", "1");
  return response;
}

HttpResponse NoPicture(std::uint64_t service) {
  return ErrorResponse(HttpStatus::kNotFound,
                       fmt::format("service {}: no picture in the first 16 MiB of the stream; it "
                                   "has no video, or is scrambled, or is not in the file",
                                   service));
}

HttpResponse PictureResponse(std::string jpeg, const std::string& tag) {
  HttpResponse response;
  response.content_type = "image/jpeg";
  response.headers = {{"ETag", tag}, {"Cache-Control", "no-cache"}};
  response.body = std::move(jpeg);
  return response;
}

}  // namespace

Thumbnails::Thumbnails() : ffmpeg_(FindProgram("ffmpeg")) {}

std::string Thumbnails::AddressOf(const std::string& path, std::uint64_t service) {
  return fmt::format("/api/v1/media/thumbnail?path={}&service={}", Encoded(path), service);
}

HttpResponse Thumbnails::Get(const MediaFile& file, const HttpRequest& request) {
  const auto given = request.query.find("service");
  const auto service =
      given == request.query.end() ? std::nullopt : ParseNumber(given->second, 1, kHighestService);
  if (!service) {
    return ErrorResponse(HttpStatus::kBadRequest,
                         "service: give its number, 1 to 65535, as the facts have it", "service");
  }
  if (ffmpeg_.empty()) {
    return ErrorResponse(HttpStatus::kNotFound,
                         "there are no pictures: ffmpeg is not installed on the server");
  }
  const std::string key = KeyOf(file, *service);
  auto jpeg = Find(key);
  if (!jpeg) {
    const Turn turn(*this);
    if (!turn.IsMine()) {
      return AskAgain("other pictures are being made");
    }
    jpeg = MakePicture(file, ffmpeg_, *service);
    if (!jpeg) {
      return AskAgain("the picture was not made within its bounds");
    }
    Keep({key, *jpeg});
  }
  if (jpeg->empty()) {
    return NoPicture(*service);
  }
  const std::string tag = fmt::format("\"{:x}\"", HashOfName(key));
  HttpResponse response = PictureResponse(*std::move(jpeg), tag);
  if (request.Header("if-none-match") == tag) {
    response.status = HttpStatus::kNotModified;
    response.body.clear();
  }
  return response;
}

Thumbnails::Turn::Turn(Thumbnails& all) : all_(all) {
  const std::lock_guard lock(all_.mutex_);
  is_mine_ = all_.being_made_ < kMostAtOnce;
  all_.being_made_ += is_mine_ ? 1 : 0;
}

Thumbnails::Turn::~Turn() {
  const std::lock_guard lock(all_.mutex_);
  all_.being_made_ -= is_mine_ ? 1 : 0;
}

std::optional<std::string> Thumbnails::Find(const std::string& key) {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find(kept_, key, &Picture::key);
  return found == kept_.end() ? std::nullopt : std::optional(found->jpeg);
}

void Thumbnails::Keep(Picture picture) {
  const std::lock_guard lock(mutex_);
  if (kept_.size() == kMostKept) {
    kept_.pop_front();
  }
  kept_.push_back(std::move(picture));
}

}  // namespace ipplay::serve
