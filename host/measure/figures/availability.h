// SPDX-License-Identifier: MIT
// Errored seconds and availability in the manner of ITU-T G.826, with media packets for its blocks.
#pragma once

#include <cstdint>

namespace ipplay::measure {

class Availability {
 public:
  // Ten severely errored seconds in a row begin unavailable time, and ten others end it; those ten
  // belong to what they begin (G.826, annex A).
  static constexpr std::uint64_t kSecondsToTurn = 10;

  struct Second {
    std::uint64_t received_packets = 0;
    std::uint64_t lost_packets = 0;
    bool has_other_errors = false;
  };

  // `count` seconds in a row that are all alike.
  void Add(const Second& second, std::uint64_t count = 1);

  std::uint64_t Seconds() const { return seconds_; }
  // Both in available time only; a severely errored second is an errored second, too.
  std::uint64_t ErroredSeconds() const { return errored_; }
  std::uint64_t SeverelyErroredSeconds() const { return severely_errored_; }
  std::uint64_t UnavailableSeconds() const { return unavailable_; }

 private:
  void AddOne(bool errored, bool severely);
  void Count(bool errored, bool severely, std::uint64_t seconds);
  void Turn();

  std::uint64_t seconds_ = 0;
  std::uint64_t errored_ = 0;
  std::uint64_t severely_errored_ = 0;
  std::uint64_t unavailable_ = 0;
  bool is_available_ = true;
  // The last seconds in a row that speak for a turn, and how many of them were errored.
  std::uint64_t turning_ = 0;
  std::uint64_t turning_errored_ = 0;
};

}  // namespace ipplay::measure
