// SPDX-License-Identifier: MIT
// What forward error correction makes of the losses of one stream (SMPTE ST 2022-1): its parity is
// checked against the media, and what is lost is rebuilt as a receiver does.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "host/measure/figures/fec_datagram.h"
#include "host/measure/figures/rtp_sequence.h"

namespace ipplay::measure {

// Of the media datagrams that are behind the window, of all of them in the end.
struct FecCounters {
  std::uint32_t columns = 0;  // L, by the last FEC datagram of a column; 0 where none came
  std::uint32_t rows = 0;     // D, the same
  std::uint32_t row_length = 0;
  std::uint64_t column_datagrams = 0;
  std::uint64_t row_datagrams = 0;
  std::uint64_t parity_right = 0;
  std::uint64_t parity_wrong = 0;
  std::uint64_t lost = 0;  // of which:
  std::uint64_t repaired = 0;
  std::uint64_t too_many = 0;     // each FEC datagram that protects it lacks another one as well
  std::uint64_t unprotected = 0;  // none came that protects it

  std::uint64_t Unrepaired() const { return too_many + unprotected; }
};

class FecRepair {
 public:
  // Media datagrams that are kept: three of the largest matrices, since the FEC of one may be sent
  // during the next. A datagram still missing this far behind the highest number stays lost.
  static constexpr std::uint32_t kWindow = 3 * FecDatagram::kLongestSpan;
  // FEC datagrams that wait because more than one of their media datagrams is missing.
  static constexpr std::size_t kMostWaiting = 256;

  struct Listener {
    std::function<void(std::int64_t time_ns)> wrong_parity;
    std::function<void(std::int64_t time_ns, std::uint64_t datagrams)> unrepaired;
    // Of each datagram that is lost, when it was missed and what became of it; may be empty.
    std::function<void(std::int64_t time_ns, bool is_repaired)> lost{};
  };
  // A media datagram; bytes are those behind the fixed RTP header, none where they were not
  // captured whole.
  struct Media {
    std::uint16_t number = 0;
    std::uint8_t payload_type = 0;
    std::uint32_t timestamp = 0;
    std::span<const std::uint8_t> bytes;
    bool is_whole = true;
  };

  explicit FecRepair(Listener listener) : listener_(std::move(listener)) {}

  // Before the first datagram, where others of the stream have come: of these so many are lost.
  // They were not kept.
  void BeginLate(std::uint64_t lost_before);
  // Memory is taken as datagrams come, and then used again.
  void AddMedia(const Media& media, const SequenceResult& sequence, std::int64_t time_ns);
  void AddFec(const FecDatagram& fec, std::int64_t time_ns);
  // What FEC says of datagrams behind the last one that came is lost as well.
  void Finish();
  // Gives its memory back; what it has counted stays.
  void GiveUp();

  bool HasFec() const { return counters_.column_datagrams + counters_.row_datagrams > 0; }
  const FecCounters& Counters() const { return counters_; }

 private:
  enum class State : std::uint8_t { kMissing, kCame, kRebuilt };

  // Also the parity of such ones.
  struct Content {
    std::uint16_t length = 0;
    std::uint8_t type = 0;
    std::uint32_t timestamp = 0;
    std::vector<std::uint8_t> bytes;

    void Add(const Content& other);
  };
  struct Slot {
    State state = State::kMissing;
    bool is_whole = false;
    bool is_protected = false;
    std::int64_t passed_ns = 0;  // when this number, or a later one, had come
    Content content;
  };
  struct Waiting {
    std::uint64_t base = 0;
    std::uint32_t offset = 0;
    std::uint32_t count = 0;
    Content content;

    std::uint64_t Last() const { return base + std::uint64_t{offset} * (count - 1); }
    bool Covers(std::uint64_t number) const {
      return number >= base && number <= Last() && (number - base) % offset == 0;
    }
  };

  static constexpr std::size_t kSlots = kWindow + FecDatagram::kLongestSpan;  // some ahead

  Slot& At(std::uint64_t number) { return slots_[number % kSlots]; }
  // Where the datagram belongs; false where it is of no use.
  bool Follow(const Media& media, const SequenceResult& sequence, std::uint64_t& number);
  bool FollowLate(std::uint32_t behind, std::uint64_t& number);
  void FollowFec(const FecDatagram& fec);
  void Start(std::uint16_t number);
  void Advance(std::uint64_t steps);
  void Retire(std::uint64_t number);
  void EndLoss();
  void Put(std::uint64_t number, const Media& media);
  // The lowest number that is kept, and the lowest that came or may be lost.
  std::uint64_t Oldest() const {
    return begins_late_ ? OldestOfStream() : highest_ - (kWindow - 1);
  }
  std::uint64_t OldestOfStream() const;
  bool Place(const FecDatagram& fec, Waiting& placed) const;
  bool Resolve(const Waiting& fec);
  void Check(const Waiting& fec);
  bool Rebuild(const Waiting& fec, std::uint64_t number);
  void NoteWrongParity();
  void ResolveWaiting();
  void Wait(Waiting&& fec);

  const Listener listener_;
  FecCounters counters_;
  std::vector<Slot> slots_;  // by number modulo kSlots; those not yet reached are as new
  std::vector<Waiting> waiting_;
  Waiting in_hand_;
  Content sum_;
  // Extended, as those below: reached by media, or far enough behind what FEC protects.
  std::uint64_t highest_ = 0;
  std::uint64_t highest_of_media_ = 0;
  std::uint64_t furthest_of_fec_ = 0;
  std::uint64_t first_ = 0;
  std::uint8_t payload_type_ = 0;
  std::int64_t now_ns_ = 0;
  std::uint64_t loss_ = 0;  // datagrams in a row up to the last retired one that stay lost
  bool is_begun_ = false;
  bool begins_late_ = false;
  bool given_up_ = false;
};

}  // namespace ipplay::measure
