// SPDX-License-Identifier: MIT
// The seconds of all streams as lines of CSV or JSON while they pass. docs/json.md has the fields.
#pragma once

#include <functional>
#include <string_view>
#include <utility>

#include "host/measure/figures/stream_second.h"
#include "host/measure/figures/stream_table.h"

namespace ipplay::measure {

class SecondLines : public SecondSink {
 public:
  enum class Format { kCsv, kJson };
  using Write = std::function<void(std::string_view line)>;

  // Both outlive this. CSV starts with a line of names.
  SecondLines(Format format, Write write, const StreamTable& streams);

  void Add(const StreamSecond& second) override;

 private:
  Format format_;
  Write write_;
  const StreamTable& streams_;
};

}  // namespace ipplay::measure
