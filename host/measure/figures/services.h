// SPDX-License-Identifier: MIT
// Which services a stream says that it carries, by PAT, PMT, CAT and SDT.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/measure/figures/psi_section.h"
#include "host/measure/figures/ts_packet.h"

namespace ipplay::measure {

enum class ComponentKind : std::uint8_t { kVideo, kAudio, kSubtitles, kData };

struct Component {
  std::uint16_t pid = kNullPid;
  std::uint8_t stream_type = 0;
  ComponentKind kind = ComponentKind::kData;
  const char* coding = "";      // "H.264"; empty where the table does not say
  std::string language{};       // ISO 639-2; empty where the table does not say
  bool is_extra_audio = false;  // for the hearing or visually impaired, or clean effects
};

struct Service {
  std::uint16_t pmt_pid = kNullPid;
  std::uint8_t pat_section = 0;
  bool has_pmt = false;
  std::uint32_t pmt_crc = 0;
  std::uint16_t pcr_pid = kNullPid;  // kNullPid: none
  std::vector<Component> components;
  std::vector<std::uint16_t> ecm_pids;
};

struct ServiceName {
  std::uint8_t sdt_section = 0;
  std::uint8_t type = 0;
  std::string provider;
  std::string name;
};

// Sections must be intact. Each Take returns whether anything changed.
class ServiceList {
 public:
  // A stream with more services is hostile; what is beyond is counted.
  static constexpr std::size_t kMaxServices = 1024;

  bool TakePat(Section section);
  bool TakePmt(std::uint16_t pid, Section section);
  bool TakeCat(Section section);
  void TakeSdt(Section section);

  // By program number.
  const std::map<std::uint16_t, Service>& Services() const { return services_; }
  const std::map<std::uint16_t, ServiceName>& Names() const { return names_; }
  const std::vector<std::uint16_t>& EmmPids() const { return emm_pids_; }
  std::uint16_t NetworkPid() const { return network_pid_; }
  std::uint16_t StreamId() const { return stream_id_; }
  bool HasPat() const { return !pat_crcs_.empty(); }
  // Whether every PMT that the PAT names has come.
  bool IsComplete() const;
  std::uint64_t LeftOut() const { return left_out_; }

 private:
  std::map<std::uint16_t, Service> services_;
  std::map<std::uint16_t, ServiceName> names_;
  std::map<std::uint8_t, std::uint32_t> pat_crcs_;  // by section number
  std::map<std::uint8_t, std::uint32_t> sdt_crcs_;
  std::uint32_t cat_crc_ = 0;
  std::vector<std::uint16_t> emm_pids_;
  std::uint16_t network_pid_ = kNullPid;
  std::uint16_t stream_id_ = 0;
  std::uint64_t left_out_ = 0;
};

}  // namespace ipplay::measure
