// SPDX-License-Identifier: MIT
#include "host/measure/figures/services.h"

#include <bitstream/dvb/si.h>
#include <bitstream/mpeg/psi.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "host/base/byte_order.h"
#include "host/measure/figures/dvb_text.h"

namespace ipplay::measure {
namespace {

// Descriptors that say what a component is: EN 300 468, table 12, and ISO/IEC 13818-1, table 2-45.
constexpr std::uint8_t kRegistration = 0x05;
constexpr std::uint8_t kConditionalAccess = 0x09;
constexpr std::uint8_t kLanguage = 0x0A;
constexpr std::uint8_t kTeletext = 0x56;
constexpr std::uint8_t kSubtitling = 0x59;
constexpr std::uint8_t kServiceDescriptor = 0x48;
constexpr std::uint8_t kExtension = 0x7F;
constexpr std::uint8_t kExtensionAc4 = 0x15;

struct Coding {
  std::uint8_t code;
  ComponentKind kind;
  const char* name;
};
// ISO/IEC 13818-1, table 2-34; from 0x80 on as registered for ATSC and SCTE.
constexpr Coding kStreamTypes[] = {
    {0x01, ComponentKind::kVideo, "MPEG-1 video"},
    {0x02, ComponentKind::kVideo, "MPEG-2 video"},
    {0x03, ComponentKind::kAudio, "MPEG-1 audio"},
    {0x04, ComponentKind::kAudio, "MPEG-2 audio"},
    {0x05, ComponentKind::kData, "private sections"},
    {0x06, ComponentKind::kData, "private data"},
    {0x0B, ComponentKind::kData, "DSM-CC"},
    {0x0F, ComponentKind::kAudio, "AAC"},
    {0x10, ComponentKind::kVideo, "MPEG-4 visual"},
    {0x11, ComponentKind::kAudio, "AAC (LATM)"},
    {0x15, ComponentKind::kData, "metadata"},
    {0x1B, ComponentKind::kVideo, "H.264"},
    {0x20, ComponentKind::kVideo, "H.264 MVC"},
    {0x21, ComponentKind::kVideo, "JPEG 2000"},
    {0x24, ComponentKind::kVideo, "H.265"},
    {0x32, ComponentKind::kVideo, "JPEG XS"},
    {0x33, ComponentKind::kVideo, "H.266"},
    {0x42, ComponentKind::kVideo, "AVS"},
    {0x81, ComponentKind::kAudio, "AC-3"},
    {0x86, ComponentKind::kData, "SCTE 35"},
    {0x87, ComponentKind::kAudio, "E-AC-3"},
    {0xD2, ComponentKind::kVideo, "AVS2"},
};
// Of stream type 6, by descriptor.
constexpr Coding kPrivateTypes[] = {
    {0x45, ComponentKind::kData, "VBI data"},
    {0x46, ComponentKind::kSubtitles, "VBI teletext"},
    {kTeletext, ComponentKind::kSubtitles, "teletext"},
    {kSubtitling, ComponentKind::kSubtitles, "DVB subtitles"},
    {0x6A, ComponentKind::kAudio, "AC-3"},
    {0x6F, ComponentKind::kData, "application signalling"},
    {0x7A, ComponentKind::kAudio, "E-AC-3"},
    {0x7B, ComponentKind::kAudio, "DTS"},
    {0x7C, ComponentKind::kAudio, "AAC"},
};
struct Registered {
  std::string_view format;
  ComponentKind kind;
  const char* name;
};
constexpr Registered kRegistered[] = {
    {"AC-3", ComponentKind::kAudio, "AC-3"},      {"EAC3", ComponentKind::kAudio, "E-AC-3"},
    {"Opus", ComponentKind::kAudio, "Opus"},      {"BSSD", ComponentKind::kAudio, "SMPTE 302M"},
    {"HEVC", ComponentKind::kVideo, "H.265"},     {"KLVA", ComponentKind::kData, "KLV metadata"},
    {"VANC", ComponentKind::kData, "SMPTE 2038"}, {"AV01", ComponentKind::kVideo, "AV1"},
};

void Name(Component& component, ComponentKind kind, const char* coding) {
  component.kind = kind;
  component.coding = coding;
}

// Calls take(tag, whole descriptor) for each one that lies wholly within `loop`.
template <typename Take>
void ForEachDescriptor(Section loop, Take&& take) {
  while (loop.size() >= DESC_HEADER_SIZE) {
    const std::size_t length = std::size_t{DESC_HEADER_SIZE} + loop[1];
    if (length > loop.size()) {
      return;
    }
    take(loop[0], loop.first(length));
    loop = loop.subspan(length);
  }
}

std::string LanguageOf(Section code) {
  std::string language;
  for (const std::uint8_t letter : code.first(3)) {
    language += letter >= 0x20 && letter < 0x7F ? static_cast<char>(letter) : '?';
  }
  return language;
}

void TakeDescriptor(std::uint8_t tag, Section descriptor, Component& component) {
  const bool has_language = tag == kLanguage || tag == kTeletext || tag == kSubtitling;
  if (has_language && descriptor.size() >= DESC_HEADER_SIZE + 4) {
    component.language = LanguageOf(descriptor.subspan(DESC_HEADER_SIZE));
    component.is_extra_audio =
        tag == kLanguage && ::desc0an_get_audiotype(&descriptor[DESC_HEADER_SIZE]) > 0;
  }
  if (component.stream_type != PMT_STREAMTYPE_PRIVATE_PES) {
    return;
  }
  for (const Coding& coding : kPrivateTypes) {
    if (coding.code == tag) {
      Name(component, coding.kind, coding.name);
    }
  }
  const Section body = descriptor.subspan(DESC_HEADER_SIZE);
  if (tag == kExtension && !body.empty() && body[0] == kExtensionAc4) {
    Name(component, ComponentKind::kAudio, "AC-4");
  }
  if (tag == kRegistration && body.size() >= 4) {
    const std::string format(body.begin(), body.begin() + 4);
    for (const Registered& registered : kRegistered) {
      if (registered.format == format) {
        Name(component, registered.kind, registered.name);
      }
    }
  }
}

void TakeCa(std::uint8_t tag, Section descriptor, std::vector<std::uint16_t>& pids) {
  if (tag == kConditionalAccess && ::desc09_validate(descriptor.data())) {
    pids.push_back(::desc09_get_pid(descriptor.data()));
  }
}

// The bytes between a section's header and its check bytes.
Section BodyOf(Section section, std::size_t header) {
  const std::size_t end = section.size() - PSI_CRC_SIZE;
  return header <= end ? section.subspan(header, end - header) : Section();
}

std::uint32_t CrcOf(Section section) {
  return LoadBe32(&section[section.size() - PSI_CRC_SIZE]);
}

Component ReadComponent(Section entry) {
  Component component{.pid = ::pmtn_get_pid(entry.data()),
                      .stream_type = ::pmtn_get_streamtype(entry.data())};
  for (const Coding& coding : kStreamTypes) {
    if (coding.code == component.stream_type) {
      Name(component, coding.kind, coding.name);
    }
  }
  return component;
}

void ReadPmt(Section section, Service& service) {
  service.components.clear();
  service.ecm_pids.clear();
  if (section.size() < PMT_HEADER_SIZE + PSI_CRC_SIZE) {
    return;
  }
  service.pcr_pid = ::pmt_get_pcrpid(section.data());
  Section loop = BodyOf(section, PMT_HEADER_SIZE);
  const std::size_t program_info =
      std::min<std::size_t>(::pmt_get_desclength(section.data()), loop.size());
  const auto take_ca = [&](std::uint8_t tag, Section d) { TakeCa(tag, d, service.ecm_pids); };
  ForEachDescriptor(loop.first(program_info), take_ca);
  loop = loop.subspan(program_info);
  while (loop.size() >= PMT_ES_SIZE) {
    Component component = ReadComponent(loop);
    const std::size_t info =
        std::min<std::size_t>(::pmtn_get_desclength(loop.data()), loop.size() - PMT_ES_SIZE);
    const Section descriptors = loop.subspan(PMT_ES_SIZE, info);
    ForEachDescriptor(descriptors, take_ca);
    ForEachDescriptor(descriptors, [&](std::uint8_t tag, Section descriptor) {
      TakeDescriptor(tag, descriptor, component);
    });
    service.components.push_back(std::move(component));
    loop = loop.subspan(PMT_ES_SIZE + info);
  }
}

// Whether the section differs from the one of the same number before; then its check bytes are
// kept.
bool IsNew(Section section, std::map<std::uint8_t, std::uint32_t>& crcs) {
  const auto [known, is_first] = crcs.try_emplace(::psi_get_section(section.data()));
  return std::exchange(known->second, CrcOf(section)) != CrcOf(section) || is_first;
}

// The provider's and the service's name, each behind its length.
ServiceName ReadName(Section descriptor) {
  ServiceName name;
  if (descriptor.size() < 4) {
    return name;
  }
  name.type = ::desc48_get_type(descriptor.data());
  Section rest = descriptor.subspan(DESC48_HEADER_SIZE);
  for (std::string* text : {&name.provider, &name.name}) {
    if (rest.empty()) {
      break;
    }
    const std::size_t length = std::min<std::size_t>(rest[0], rest.size() - 1);
    *text = DvbText(rest.subspan(1, length));
    rest = rest.subspan(1 + length);
  }
  return name;
}

}  // namespace

bool ServiceList::TakePat(Section section) {
  if (::psi_get_current(section.data()) == 0 || !IsNew(section, pat_crcs_)) {
    return false;
  }
  stream_id_ = ::pat_get_tsid(section.data());
  const std::uint8_t number = ::psi_get_section(section.data());
  const std::uint8_t last = ::psi_get_lastsection(section.data());
  std::erase_if(pat_crcs_, [&](const auto& entry) { return entry.first > last; });
  std::map<std::uint16_t, Service> before;
  for (auto at = services_.begin(); at != services_.end();) {
    const bool goes = at->second.pat_section == number || at->second.pat_section > last;
    const auto next = std::next(at);
    if (goes) {
      before.insert(services_.extract(at));
    }
    at = next;
  }
  for (Section rest = BodyOf(section, PAT_HEADER_SIZE); rest.size() >= PAT_PROGRAM_SIZE;
       rest = rest.subspan(PAT_PROGRAM_SIZE)) {
    const std::uint16_t program = ::patn_get_program(rest.data());
    const std::uint16_t pid = ::patn_get_pid(rest.data());
    if (program == 0) {
      network_pid_ = pid;
      continue;
    }
    if (services_.size() == kMaxServices) {
      ++left_out_;
      continue;
    }
    const auto old = before.find(program);
    Service service;
    if (old != before.end() && old->second.pmt_pid == pid) {
      service = std::move(old->second);
    }
    service.pmt_pid = pid;
    service.pat_section = number;
    services_[program] = std::move(service);
  }
  return true;
}

bool ServiceList::TakePmt(std::uint16_t pid, Section section) {
  const auto found = services_.find(::pmt_get_program(section.data()));
  if (::psi_get_current(section.data()) == 0 || found == services_.end() ||
      found->second.pmt_pid != pid) {
    return false;
  }
  Service& service = found->second;
  if (service.has_pmt && service.pmt_crc == CrcOf(section)) {
    return false;
  }
  service.has_pmt = true;
  service.pmt_crc = CrcOf(section);
  ReadPmt(section, service);
  return true;
}

bool ServiceList::TakeCat(Section section) {
  if (::psi_get_current(section.data()) == 0 ||
      std::exchange(cat_crc_, CrcOf(section)) == CrcOf(section)) {
    return false;
  }
  emm_pids_.clear();
  ForEachDescriptor(BodyOf(section, CAT_HEADER_SIZE),
                    [&](std::uint8_t tag, Section d) { TakeCa(tag, d, emm_pids_); });
  return true;
}

void ServiceList::TakeSdt(Section section) {
  if (::psi_get_current(section.data()) == 0 || !IsNew(section, sdt_crcs_)) {
    return;
  }
  const std::uint8_t number = ::psi_get_section(section.data());
  std::erase_if(names_, [&](const auto& entry) { return entry.second.sdt_section == number; });
  Section rest = BodyOf(section, SDT_HEADER_SIZE);
  while (rest.size() >= SDT_SERVICE_SIZE && names_.size() < kMaxServices) {
    const std::size_t info =
        std::min<std::size_t>(::sdtn_get_desclength(rest.data()), rest.size() - SDT_SERVICE_SIZE);
    ForEachDescriptor(rest.subspan(SDT_SERVICE_SIZE, info), [&](std::uint8_t tag, Section d) {
      if (tag == kServiceDescriptor) {
        ServiceName name = ReadName(d);
        name.sdt_section = number;
        names_[::sdtn_get_sid(rest.data())] = std::move(name);
      }
    });
    rest = rest.subspan(SDT_SERVICE_SIZE + info);
  }
}

bool ServiceList::IsComplete() const {
  return HasPat() &&
         std::ranges::all_of(services_, [](const auto& entry) { return entry.second.has_pmt; });
}

}  // namespace ipplay::measure
