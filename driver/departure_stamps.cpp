// SPDX-License-Identifier: MIT
#include "driver/departure_stamps.h"

#include <linux/net_tstamp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "driver/error_queue.h"
#include "platform/clock.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

constexpr std::uint32_t kReported =
    SOF_TIMESTAMPING_SOFTWARE | SOF_TIMESTAMPING_OPT_CMSG | SOF_TIMESTAMPING_OPT_TSONLY;
constexpr std::uint32_t kNumbered = kReported | SOF_TIMESTAMPING_OPT_ID;
constexpr std::uint32_t kRequested = SOF_TIMESTAMPING_TX_SOFTWARE;
// Stamps that nobody has read yet count as received data, some 800 bytes each.
constexpr int kQueueBytes = 4 << 20;
constexpr nanoseconds kLongestUnderWay = std::chrono::seconds(1);

}  // namespace

std::unique_ptr<DepartureStamps> DepartureStamps::Enable(int descriptor, int& error) {
  error = ENOMEM;
  std::unique_ptr<DepartureStamps> stamps(new (std::nothrow) DepartureStamps(descriptor));
  return stamps != nullptr && stamps->SetUp(error) ? std::move(stamps) : nullptr;
}

DepartureStamps::DepartureStamps(int descriptor)
    : descriptor_(descriptor), tags_(new (std::nothrow) decltype(tags_)::element_type{}) {
  auto* control = reinterpret_cast<cmsghdr*>(request_.data());
  control->cmsg_level = SOL_SOCKET;
  control->cmsg_type = SO_TIMESTAMPING;
  control->cmsg_len = CMSG_LEN(sizeof kRequested);
  std::memcpy(CMSG_DATA(control), &kRequested, sizeof kRequested);
}

bool DepartureStamps::SetUp(int& error) {
  if (tags_ == nullptr) {
    return false;
  }
  // The second one has an upper limit, which the first one needs a right to exceed.
  if (::setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUFFORCE, &kQueueBytes, sizeof kQueueBytes) !=
      0) {
    ::setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &kQueueBytes, sizeof kQueueBytes);
  }
  wall_clock_.Compare();
  if (!NumberFromZero()) {
    error = errno;
    return false;
  }
  error = 0;
  return true;
}

// Switching the numbers on, not leaving them on, sets them to 0.
bool DepartureStamps::NumberFromZero() const {
  return ::setsockopt(descriptor_, SOL_SOCKET, SO_TIMESTAMPING, &kReported, sizeof kReported) ==
             0 &&
         ::setsockopt(descriptor_, SOL_SOCKET, SO_TIMESTAMPING, &kNumbered, sizeof kNumbered) == 0;
}

void DepartureStamps::Request(std::span<mmsghdr> messages, std::span<const std::uint32_t> tags) {
  if (unsure_since_) {
    TryToRestart();
  }
  std::uint32_t number = next_number_;
  for (std::size_t i = 0; i < messages.size(); ++i) {
    const bool wanted = tags[i] != 0 && !unsure_since_;
    messages[i].msg_hdr.msg_control = wanted ? request_.data() : nullptr;
    messages[i].msg_hdr.msg_controllen = wanted ? request_.size() : 0;
    if (wanted) {
      (*tags_)[number % kUnderWay].store(std::uint64_t{number} << 32 | tags[i],
                                         std::memory_order_release);
      ++number;
    }
  }
}

void DepartureStamps::Note(std::span<const mmsghdr> messages, std::size_t sent) {
  const auto asks = [](const mmsghdr& message) { return message.msg_hdr.msg_controllen != 0; };
  const auto numbered = std::ranges::count_if(messages.first(sent), asks);
  next_number_ += static_cast<std::uint32_t>(numbered);
  requested_ += static_cast<std::uint64_t>(numbered);
  if (sent < messages.size() && asks(messages[sent])) {
    unsure_since_ = platform::MonotonicNow();
  }
}

void DepartureStamps::TryToRestart() {
  const std::uint64_t read = read_.load(std::memory_order_relaxed);
  if (read < requested_ && platform::MonotonicNow() - *unsure_since_ < kLongestUnderWay) {
    return;
  }
  // One that is under way still has a number that is not given again soon, and finds no tag.
  for (auto& tag : *tags_) {
    tag.store(0, std::memory_order_relaxed);
  }
  if (NumberFromZero()) {
    next_number_ = 0;
    requested_ = read;
    unsure_since_.reset();
  }
}

std::size_t DepartureStamps::Read(std::span<Departure> out) {
  std::size_t count = 0;
  while (count == 0) {
    const std::size_t received = Receive(out.size());
    if (received == 0) {
      break;
    }
    for (std::size_t i = 0; i < received; ++i) {
      const QueuedError queued = ReadQueuedError(messages_[i].msg_hdr);
      read_.fetch_add(queued.IsStamp() ? 1 : 0, std::memory_order_relaxed);
      icmp_errors_.fetch_add(queued.IsIcmp() ? 1 : 0, std::memory_order_relaxed);
      const std::uint32_t tag = queued.IsStamp() ? TagOf(queued.error.ee_data) : 0;
      if (tag != 0 && queued.software_stamp && !clock_was_set_) {
        out[count++] = {tag, wall_clock_.ToMonotonic(*queued.software_stamp), false};
      }
    }
  }
  return count;
}

std::size_t DepartureStamps::Receive(std::size_t most) {
  const std::size_t room = std::min(most, messages_.size());
  for (std::size_t i = 0; i < room; ++i) {
    messages_[i].msg_hdr.msg_control = controls_[i].bytes.data();
    messages_[i].msg_hdr.msg_controllen = controls_[i].bytes.size();
  }
  const int result = room == 0
                         ? 0
                         : ::recvmmsg(descriptor_, messages_.data(), static_cast<unsigned>(room),
                                      MSG_ERRQUEUE | MSG_DONTWAIT, nullptr);
  if (result <= 0) {
    clock_was_set_ = clock_was_set_ && room == 0;
    // An adapter that went down, say, has left an error that a poll reports until it is taken.
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(descriptor_, SOL_SOCKET, SO_ERROR, &error, &size);
    return 0;
  }
  // All that were just read had been stamped by now.
  clock_was_set_ |= wall_clock_.Compare();
  return static_cast<std::size_t>(result);
}

std::uint32_t DepartureStamps::TagOf(std::uint32_t number) const {
  const std::uint64_t entry = (*tags_)[number % kUnderWay].load(std::memory_order_acquire);
  return entry >> 32 == number ? static_cast<std::uint32_t>(entry) : 0;
}

}  // namespace ipplayout
