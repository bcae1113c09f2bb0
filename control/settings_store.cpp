// SPDX-License-Identifier: MIT
#include "control/settings_store.h"

namespace ipplayout {
namespace {

constinit PlayoutSettings settings{};

}  // namespace

PlayoutSettings& Settings() {
  return settings;
}

void ResetForInit() {
  settings.params = {};
  settings.error_insertion = {};
  settings.parametric = {};
  settings.other = {};
}

}  // namespace ipplayout
