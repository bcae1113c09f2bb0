// SPDX-License-Identifier: MIT
#include "control/parametric_settings.h"

namespace ipplayout {
namespace {

// The parametric manager's own numbers.
std::int32_t DistributionType(std::uint32_t setting) {
  switch (setting) {
    case IPPLAYOUT_JITTER_SQUARE:
      return CZebParametricManager::kSquare;
    case IPPLAYOUT_JITTER_GAUSSIAN:
      return CZebParametricManager::kGaussian;
    case IPPLAYOUT_JITTER_SQUARED_DIFFERENCE:
      return CZebParametricManager::kSquaredDifference;
    case IPPLAYOUT_JITTER_SINE:
      return CZebParametricManager::kSine;
    default:
      return CZebParametricManager::kNone;
  }
}

}  // namespace

void LoadParametricSettings(CZebParametricManager& manager, const ParametricSettings& settings) {
  manager.SetBurstMode(settings.BurstMode == IPPLAYOUT_ON ? 1 : 0);
  manager.SetBurstPeriod(settings.BurstPeriod);
  manager.SetBurstSize(settings.BurstSize);
  if (settings.BurstValueType <= IPPLAYOUT_BURST_BY_SIZE) {
    manager.SetBurstValueType(settings.BurstValueType);
  }
  LoadJitter(manager, settings);
}

void LoadJitter(CZebParametricManager& manager, const ParametricSettings& settings) {
  manager.SetJitterEnabled(settings.JitterEnabled == IPPLAYOUT_ON ? 1 : 0);
  manager.SetDistributionType(DistributionType(settings.JitterDistributionType));
  manager.SetJitterPeriod(settings.JitterPeriod);
  manager.SetSquareCycleLength(2);
}

}  // namespace ipplayout
