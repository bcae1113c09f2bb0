// SPDX-License-Identifier: MIT
// Counts the versions of PAT and PMTs on where streams are joined: a receiver looks at a table
// again only where its version is new.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>

#include "host/stream/psi_tables.h"
#include "host/stream/stream_tables.h"

namespace ipplay {

class TableVersions {
 public:
  // `next` are the tables of the stream that comes now.
  void Join(const StreamTables& next);

  // Rewrites the version of each table that the packet has a part of, in place, and its check bytes
  // to match.
  void Rewrite(std::uint8_t* packet);

 private:
  // How much of a section has come, which may take several packets.
  struct Progress {
    bool started = false;
    std::size_t bytes = 0;                              // that have come
    std::size_t length = 0;                             // of the section, once it is known
    std::array<std::uint8_t, kVersionByte + 1> head{};  // as it was
    std::uint32_t change = 0;                           // of the check bytes
  };
  struct Pid {
    Progress section;
    Progress before;           // the last packet, which may come twice
    std::uint8_t counter = 0;  // of the last packet
  };

  std::size_t Pass(Progress& section, std::span<std::uint8_t> payload) const;
  void PassByte(Progress& section, std::uint8_t& byte) const;
  unsigned AddedTo(const Progress& section) const;

  std::map<std::uint16_t, unsigned> added_;  // to the version of each table, by programme
  bool changes_ = false;                     // any of them
  Tables sent_;                              // by the end of the stream in hand, as they leave
  std::map<std::uint16_t, Pid> pids_;        // with its tables
};

}  // namespace ipplay
