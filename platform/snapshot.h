// SPDX-License-Identifier: MIT
// A record that one thread publishes over and over and that others read whole.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace ipplayout::platform {

// Publishing takes no lock and no locked instruction, so it does not wait for what the publishing
// thread has stored before. It writes the older of two slots, so that a publisher that is held up
// holds up no reader: a reader starts again only if two records were published while it read.
template <typename T>
class Snapshot {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  // One thread at a time.
  void Publish(const T& record) {
    Words words{};
    std::memcpy(words.data(), &record, sizeof record);
    const std::uint32_t next = published_.load(std::memory_order_relaxed) + 1;
    Slot& slot = slots_[next % 2];
    for (std::size_t i = 0; i < kWords; ++i) {
      slot[i].store(words[i], std::memory_order_release);
    }
    published_.store(next, std::memory_order_release);
  }

  // The record published last, all zero before the first one. Any thread.
  T Read() const {
    Words words;
    for (;;) {
      const std::uint32_t current = published_.load(std::memory_order_acquire);
      const Slot& slot = slots_[current % 2];
      for (std::size_t i = 0; i < kWords; ++i) {
        words[i] = slot[i].load(std::memory_order_acquire);
      }
      // A word of a later record in this slot was stored after the one between was published.
      if (published_.load(std::memory_order_relaxed) == current) {
        break;
      }
    }
    T record;
    std::memcpy(&record, words.data(), sizeof record);
    return record;
  }

 private:
  using Word = std::size_t;
  static constexpr std::size_t kWords = (sizeof(T) + sizeof(Word) - 1) / sizeof(Word);
  using Words = std::array<Word, kWords>;
  using Slot = std::array<std::atomic<Word>, kWords>;

  std::array<Slot, 2> slots_{};
  std::atomic<std::uint32_t> published_{0};
};

}  // namespace ipplayout::platform
