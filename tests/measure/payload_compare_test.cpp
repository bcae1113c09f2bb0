// SPDX-License-Identifier: MIT
#include "host/measure/figures/payload_compare.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>

#include "frame_builder.h"

namespace ipplay::measure {
namespace {

using testing::Bytes;

class ExpectedFile {
 public:
  explicit ExpectedFile(const Bytes& bytes) {
    std::fwrite(bytes.data(), 1, bytes.size(), file_.get());
    std::fflush(file_.get());
  }
  int Fd() const { return fileno(file_.get()); }
  std::shared_ptr<SteadyFile> Open() const {
    return *SteadyFile::Open("/proc/self/fd/" + std::to_string(Fd()));
  }

 private:
  std::unique_ptr<std::FILE, decltype(&std::fclose)> file_{std::tmpfile(), &std::fclose};
};

// Bytes of which parts come again elsewhere, and zeros, around which a search goes wrong first.
Bytes FileOf(std::size_t size, std::mt19937& random) {
  Bytes bytes(size);
  std::ranges::generate(bytes, [&] { return static_cast<std::uint8_t>(random()); });
  for (const auto& [from, to, length] :
       {std::array{1000, 50'001, 1500}, {1000, 90'003, 1400}, {0, 120'000, 70}}) {
    if (static_cast<std::size_t>(to + length) < size) {
      std::copy_n(bytes.begin() + from, length, bytes.begin() + to);
    }
  }
  const std::size_t zeros = std::min<std::size_t>(size / 4, 3000);
  std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(size / 3), zeros, std::uint8_t{0});
  return bytes;
}

// What each place is asked for, one by one.
std::vector<std::uint64_t> AllPlaces(const Bytes& file, const Bytes& payload) {
  std::vector<std::uint64_t> places;
  for (std::size_t place = 0; place < file.size(); ++place) {
    std::size_t equal = 0;
    while (equal < payload.size() && payload[equal] == file[(place + equal) % file.size()]) {
      ++equal;
    }
    if (equal == payload.size()) {
      places.push_back(place);
    }
  }
  return places;
}

TEST(ExpectedContent, FindsEveryPlaceInFilesOfAnySize) {
  std::mt19937 random(7);
  for (const std::size_t size : {1U, 188U, 3000U, 65'536U, 65'537U, 200'000U}) {
    const Bytes file = FileOf(size, random);
    ExpectedContent content(ExpectedFile(file).Open());
    for (std::size_t i = 0; i < 60; ++i) {
      const std::size_t length = std::array<std::size_t, 3>{188, 1316, 130}[i % 3];
      const std::size_t starts[] = {random() % size, 1100,
                                    size - 1 - random() % std::min<std::size_t>(size, 200),
                                    size / 3, size / 3 + 2900};
      const std::size_t start = starts[i % 5];
      Bytes payload(length);
      for (std::size_t at = 0; at < length; ++at) {
        payload[at] = file[(start + at) % size];
      }
      if (i % 7 == 0) {
        payload[random() % length] ^= 1;
      }
      const auto places = AllPlaces(file, payload);
      EXPECT_EQ(content.Places(payload), places) << size << " " << start << " " << length;
      const std::uint64_t from = random() % (2 * size);
      const std::uint64_t distance = 1 + random() % (size + 100);
      std::optional<std::uint64_t> nearest;
      for (std::uint64_t at = from; at < from + std::min<std::uint64_t>(distance, size) && !nearest;
           ++at) {
        nearest = std::ranges::binary_search(places, at % size) ? std::optional(at) : std::nullopt;
      }
      EXPECT_EQ(content.FindFrom(payload, from, distance), nearest) << size << " " << start;
    }
  }
}

TEST(ExpectedContent, GivesUpWhereNothingTellsPlacesApart) {
  ExpectedContent content(ExpectedFile(Bytes(300'000)).Open());
  EXPECT_EQ(content.Places(Bytes(1316)).size(), ExpectedContent::kMaxPlaces + 1);
  Bytes almost(1316);
  almost.back() = 1;  // whole blocks of it are everywhere
  EXPECT_EQ(content.Places(almost).size(), ExpectedContent::kMaxPlaces + 1);
  EXPECT_EQ(content.Places(Bytes(20)).size(), ExpectedContent::kMaxPlaces + 1);
  EXPECT_TRUE(content.Places(Bytes(1316, 1)).empty());
}

TEST(ExpectedContent, NothingIsComparedOnceTheFileHasChanged) {
  std::mt19937 random(7);
  const Bytes bytes = FileOf(300'000, random);
  const ExpectedFile file(bytes);
  const auto content = std::make_shared<ExpectedContent>(file.Open());
  PayloadCompare compare(content);
  const auto add = [&](std::ptrdiff_t at) {
    compare.Add(std::span(bytes).subspan(static_cast<std::size_t>(at), 1316), {.numbered = true});
  };
  add(0);
  EXPECT_EQ(compare.Equal(), 1U);
  ASSERT_EQ(::ftruncate(file.Fd(), 100), 0);
  for (std::ptrdiff_t at = 1316; at < 200'000; at += 1316) {
    add(at);
  }
  EXPECT_EQ(content->Error(), "the file has become shorter meanwhile");
  EXPECT_LT(compare.Equal(), 100U);  // of what had been read before
  EXPECT_EQ(compare.Different(), 0U);
}

}  // namespace
}  // namespace ipplay::measure
