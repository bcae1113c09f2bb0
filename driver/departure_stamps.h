// SPDX-License-Identifier: MIT
// When frames left, as the kernel saw it (SO_TIMESTAMPING).
// https://docs.kernel.org/networking/timestamping.html
#pragma once

#include <sys/socket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "driver/error_queue.h"
#include "driver/frame_sink.h"
#include "platform/wall_clock.h"

namespace ipplayout {

// Asks for a stamp of those messages of a packet or UDP socket that have a tag, and reads the
// stamps. They are taken by software as the kernel passes the frame to the adapter's driver. Those
// of an adapter are not asked for: its clock need not be the system's.
//
// The kernel numbers the messages that ask for a stamp, and returns the number with the stamp. It
// may or may not number one that it then does not send. So after such a one no stamp is asked for
// until all that are under way have come in or a second has passed, and the numbers begin at 0
// again. A stamp can be missing; none has another frame's tag.
//
// The kernel stamps with the wall clock. Stamps that were taken around a setting of that clock are
// left out.
class DepartureStamps {
 public:
  // Null, and the system's error number in `error`, when the kernel refuses. `descriptor` stays the
  // caller's.
  static std::unique_ptr<DepartureStamps> Enable(int descriptor, int& error);
  DepartureStamps(const DepartureStamps&) = delete;
  DepartureStamps& operator=(const DepartureStamps&) = delete;

  // The sending thread. Around each attempt: tags[i] is messages[i]'s, 0 wants no stamp; the first
  // `sent` messages were then sent, and the one behind them, if any, was tried.
  void Request(std::span<mmsghdr> messages, std::span<const std::uint32_t> tags);
  void Note(std::span<const mmsghdr> messages, std::size_t sent);

  // The reading thread. As FrameSink::ReadDepartures.
  std::size_t Read(std::span<Departure> out);
  // Errors in the queue of stamps that an ICMP message caused. Any thread.
  std::uint64_t IcmpErrors() const { return icmp_errors_.load(std::memory_order_relaxed); }

 private:
  static constexpr std::size_t kAtOnce = 32;
  static constexpr std::size_t kUnderWay = 4096;

  explicit DepartureStamps(int descriptor);

  bool SetUp(int& error);
  bool NumberFromZero() const;
  void TryToRestart();
  std::size_t Receive(std::size_t most);
  std::uint32_t TagOf(std::uint32_t number) const;

  const int descriptor_;

  // The number in the upper half, the tag in the lower one. Written before the message is sent,
  // read once its stamp has come.
  std::unique_ptr<std::array<std::atomic<std::uint64_t>, kUnderWay>> tags_;
  std::atomic<std::uint64_t> read_{0};  // stamps that came; written by the reading thread
  std::atomic<std::uint64_t> icmp_errors_{0};

  // The sending thread's.
  alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(std::uint32_t))> request_{};
  std::uint32_t next_number_ = 0;
  std::uint64_t requested_ = 0;
  // When a message with a tag was not sent: from then on the numbers are not known.
  std::optional<std::chrono::nanoseconds> unsure_since_;

  // The reading thread's.
  platform::WallClock wall_clock_;
  bool clock_was_set_ = false;  // until the queue was found empty
  struct Control {
    alignas(cmsghdr) std::array<std::uint8_t, kErrorControlBytes> bytes;
  };
  std::array<Control, kAtOnce> controls_{};
  std::array<mmsghdr, kAtOnce> messages_{};
};

}  // namespace ipplayout
