// SPDX-License-Identifier: MIT
#include "host/base/capabilities.h"

#include <fmt/format.h>
#include <link.h>
#include <sys/capability.h>

#include <filesystem>
#include <memory>

namespace ipplay {
namespace {

static_assert(kCapChown == CAP_CHOWN && kCapDacOverride == CAP_DAC_OVERRIDE &&
              kCapFowner == CAP_FOWNER && kCapKill == CAP_KILL && kCapNetRaw == CAP_NET_RAW &&
              kCapSysNice == CAP_SYS_NICE);

using Capabilities = std::unique_ptr<std::remove_pointer_t<cap_t>, decltype(&cap_free)>;

bool Has(cap_value_t capability) {
  const Capabilities own(::cap_get_proc(), &cap_free);
  cap_flag_value_t value = CAP_CLEAR;
  return own != nullptr && ::cap_get_flag(own.get(), capability, CAP_EFFECTIVE, &value) == 0 &&
         value == CAP_SET;
}

// As in a build tree: whoever can write to a folder of it lends the program code.
bool LooksForLibrariesByItself() {
  for (const ElfW(Dyn)* entry = _DYNAMIC; entry->d_tag != DT_NULL; ++entry) {
    if (entry->d_tag == DT_RPATH || entry->d_tag == DT_RUNPATH) {
      return true;
    }
  }
  return false;
}

std::string OwnPath() {
  std::error_code error;
  const auto path = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string("ipplay") : path.string();
}

}  // namespace

std::string HowToGetRights(std::string_view capabilities) {
  if (LooksForLibrariesByItself()) {
    return "run as root, or install ipplay and give the installed program its rights";
  }
  return fmt::format(
      "run as root, or once as root, for a group of users: chgrp GROUP {0}; chmod 750 {0}; "
      "setcap {1}+ep {0}",
      OwnPath(), capabilities);
}

std::optional<std::string> MissingRightToSend() {
  if (Has(CAP_NET_RAW)) {
    return std::nullopt;
  }
  return fmt::format("no permission to send frames: CAP_NET_RAW is missing{}; {}",
                     Has(CAP_SYS_NICE) ? "" : " (and CAP_SYS_NICE, for exact timing)",
                     HowToGetRights("cap_net_raw,cap_sys_nice"));
}

void KeepCapabilities(std::initializer_list<int> kept) {
  const Capabilities fewer(::cap_init(), &cap_free);
  if (fewer == nullptr) {
    return;
  }
  // One that is not in effect just now can be, as long as it is permitted.
  const Capabilities own(::cap_get_proc(), &cap_free);
  for (const cap_value_t capability : kept) {
    cap_flag_value_t permitted = CAP_CLEAR;
    if (own == nullptr || ::cap_get_flag(own.get(), capability, CAP_PERMITTED, &permitted) != 0 ||
        permitted != CAP_SET) {
      continue;
    }
    ::cap_set_flag(fewer.get(), CAP_PERMITTED, 1, &capability, CAP_SET);
    ::cap_set_flag(fewer.get(), CAP_EFFECTIVE, 1, &capability, CAP_SET);
  }
  // Dropping capabilities needs no right.
  ::cap_set_proc(fewer.get());
}

}  // namespace ipplay
