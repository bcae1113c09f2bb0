// SPDX-License-Identifier: MIT
// Jitter and burst parameters of a run, and the jitter offsets that follow from them.
#pragma once

#include <cstdint>

#include "ipplayout/ipplayout.h"
#include "platform/random.h"
#include "transmit/seconds.h"

namespace ipplayout {

class CParametricManagerBase {
 public:
  virtual std::uint8_t IsJitterEnabled() const = 0;
  virtual float GetJitterPeriod() const = 0;
  virtual std::uint32_t GetSquareCycleLength() const = 0;
  virtual std::int32_t GetDistributionType() const = 0;
  // Offset of the datagram with running number `index`, `gap` after the one
  // before it. Not limited: the caller sees to it that time does not run backwards.
  virtual Seconds NextJitter(Seconds gap, std::int64_t index) = 0;
  // Adds a signed time to a held pair of seconds and microseconds, which never goes below zero.
  virtual void AddTime(std::int32_t seconds, std::int32_t microseconds, std::int32_t& held_seconds,
                       std::int32_t& held_microseconds) const = 0;
  virtual std::int32_t GetThreadPriority() const = 0;
  virtual std::uint8_t IsBurstMode() const = 0;
  virtual std::uint32_t GetBurstValueType() const = 0;
  virtual std::uint32_t GetBurstCount() const = 0;
  virtual std::uint32_t GetBurstPeriod() const = 0;
  virtual ~CParametricManagerBase() = default;
};

// Written by IPStart before the workers run; read by them, without a lock.
class CZebParametricManager final : public CParametricManagerBase {
 public:
  enum DistributionType : std::int32_t {
    kNone = -1,
    kSquaredDifference = 0,
    kGaussian = 1,
    kSine = 2,
    kSquare = 3,
  };

  // Where random offsets are drawn from; the process-wide generator at first.
  void UseRandom(platform::Random& random) { random_ = &random; }

  std::uint8_t IsJitterEnabled() const override { return jitter_enabled_; }
  float GetJitterPeriod() const override { return jitter_period_; }
  std::uint32_t GetSquareCycleLength() const override { return square_cycle_length_; }
  std::int32_t GetDistributionType() const override { return distribution_type_; }
  Seconds NextJitter(Seconds gap, std::int64_t index) override;
  void AddTime(std::int32_t seconds, std::int32_t microseconds, std::int32_t& held_seconds,
               std::int32_t& held_microseconds) const override;
  std::int32_t GetThreadPriority() const override { return thread_priority_; }
  std::uint8_t IsBurstMode() const override { return burst_mode_; }
  std::uint32_t GetBurstValueType() const override { return burst_value_type_; }
  std::uint32_t GetBurstCount() const override { return burst_count_; }
  std::uint32_t GetBurstPeriod() const override { return burst_period_; }

  bool SetJitterEnabled(std::uint8_t enabled);
  // Percent of the nominal gap; for the square pattern the peak-to-peak time in microseconds.
  bool SetJitterPeriod(float period);
  // Datagrams in one cycle of the square pattern.
  bool SetSquareCycleLength(std::uint32_t datagrams);
  bool SetDistributionType(std::int32_t type);
  bool SetThreadPriority(std::int32_t priority);
  bool SetBurstMode(std::uint8_t on);
  bool SetBurstValueType(std::uint32_t type);
  bool SetBurstPeriod(std::uint32_t milliseconds);
  bool SetBurstSize(std::uint32_t datagrams);
  // Datagrams per burst for datagrams of `datagram_bytes` at `bit_rate` bit/s. False, changing
  // nothing, when the burst is given in a way that is not known.
  bool ComputeBurstCount(std::uint32_t datagram_bytes, double bit_rate);

 private:
  Seconds SquareOffset(std::int64_t index) const;

  platform::Random* random_ = &platform::ProcessRandom();
  std::uint8_t jitter_enabled_ = 0;
  float jitter_period_ = 0;
  std::uint32_t square_cycle_length_ = 0;
  std::int32_t distribution_type_ = kNone;
  std::int32_t thread_priority_ = 0;
  std::uint8_t burst_mode_ = 0;
  std::uint32_t burst_value_type_ = IPPLAYOUT_BURST_BY_PERIOD;
  std::uint32_t burst_period_ = 0;
  std::uint32_t burst_size_ = 0;
  std::uint32_t burst_count_ = 0;
};

}  // namespace ipplayout
