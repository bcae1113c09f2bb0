// SPDX-License-Identifier: MIT
#include "transmit/parametric_manager.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "platform/random.h"

namespace ipplayout {
namespace {

// 22 / 7, on purpose: the pattern is defined with it. A sine cycle lasts 99.96 datagrams.
constexpr double kPi = 3.142857142857143;

double RandomFraction(platform::Random& random) {
  return random.Next() / double{platform::kRandomMax};
}

double RandomHundredth(platform::Random& random) {
  return (random.Next() % 100) / 100.0;
}

// Box-Muller with a standard deviation of a quarter, drawn again until it lies in [-1, 1]. The
// negated comparison also draws again for the not-a-number that a logarithm of zero can give. Twice
// pi is 44 / 7, as in the sine pattern.
double GaussianVariate(platform::Random& random) {
  double z = 0;
  do {
    const double a = RandomHundredth(random);
    const double b = RandomHundredth(random);
    z = 0.25 * std::sqrt(-2 * std::log(a)) * std::cos(b * 44 / 7);
  } while (!(z >= -1 && z <= 1));
  return z;
}

}  // namespace

Seconds CZebParametricManager::NextJitter(Seconds gap, std::int64_t index) {
  const double period = jitter_period_;
  switch (distribution_type_) {
    case kSquaredDifference: {
      const double u1 = RandomFraction(*random_);
      const double u2 = RandomFraction(*random_);
      return (u1 * u1 - u2 * u2) * period * gap / 100;
    }
    case kGaussian:
      return GaussianVariate(*random_) * (period / 100) * gap;
    case kSine:
      return std::sin(static_cast<double>(index) * kPi * 0.02) * (period / 100) * gap;
    case kSquare:
      return SquareOffset(index);
    default:
      return Seconds(0);
  }
}

Seconds CZebParametricManager::SquareOffset(std::int64_t index) const {
  const bool first_of_cycle =
      square_cycle_length_ != 0 && index % std::int64_t{square_cycle_length_} == 0;
  if (burst_mode_ != 0) {
    return Seconds(first_of_cycle ? double{jitter_period_} / 1000000 : 0);
  }
  return Seconds((first_of_cycle ? 1 : -1) * double{jitter_period_} / 2000000);
}

void CZebParametricManager::AddTime(std::int32_t seconds, std::int32_t microseconds,
                                    std::int32_t& held_seconds,
                                    std::int32_t& held_microseconds) const {
  constexpr std::int32_t kMicrosecondsPerSecond = 1000000;
  const bool borrow = held_microseconds + microseconds < 0;
  const std::int64_t new_seconds = std::int64_t{held_seconds} + seconds - (borrow ? 1 : 0);
  if (new_seconds < 0) {
    held_seconds = 0;
    held_microseconds = 0;
    return;
  }
  held_seconds = static_cast<std::int32_t>(
      std::min<std::int64_t>(new_seconds, std::numeric_limits<std::int32_t>::max() - 1));
  held_microseconds += microseconds + (borrow ? kMicrosecondsPerSecond : 0);
  if (held_microseconds >= kMicrosecondsPerSecond) {
    ++held_seconds;
    held_microseconds -= kMicrosecondsPerSecond;
  }
}

bool CZebParametricManager::SetJitterEnabled(std::uint8_t enabled) {
  jitter_enabled_ = enabled;
  return true;
}

bool CZebParametricManager::SetJitterPeriod(float period) {
  jitter_period_ = period;
  return true;
}

bool CZebParametricManager::SetSquareCycleLength(std::uint32_t datagrams) {
  square_cycle_length_ = datagrams;
  return true;
}

bool CZebParametricManager::SetDistributionType(std::int32_t type) {
  distribution_type_ = type;
  return true;
}

bool CZebParametricManager::SetThreadPriority(std::int32_t priority) {
  thread_priority_ = priority;
  return true;
}

bool CZebParametricManager::SetBurstMode(std::uint8_t on) {
  burst_mode_ = on;
  return true;
}

bool CZebParametricManager::SetBurstValueType(std::uint32_t type) {
  burst_value_type_ = type;
  return true;
}

bool CZebParametricManager::SetBurstPeriod(std::uint32_t milliseconds) {
  burst_period_ = milliseconds;
  return true;
}

bool CZebParametricManager::SetBurstSize(std::uint32_t datagrams) {
  burst_size_ = datagrams;
  return true;
}

bool CZebParametricManager::ComputeBurstCount(std::uint32_t datagram_bytes, double bit_rate) {
  std::uint32_t count = 1;
  if (burst_mode_ != 0) {
    if (burst_value_type_ == IPPLAYOUT_BURST_BY_PERIOD) {
      const double exact = burst_period_ * bit_rate / (datagram_bytes * 8000.0);
      // Beyond the field's range, or not a number: more than any queue can hold, and refused there.
      constexpr double kMost = std::numeric_limits<std::uint32_t>::max();
      count = exact < kMost ? static_cast<std::uint32_t>(exact)
                            : std::numeric_limits<std::uint32_t>::max();
    } else if (burst_value_type_ == IPPLAYOUT_BURST_BY_SIZE) {
      count = burst_size_;
    } else {
      return false;
    }
  }
  burst_count_ = std::max(count, 1U);
  return true;
}

}  // namespace ipplayout
