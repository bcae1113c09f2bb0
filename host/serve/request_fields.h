// SPDX-License-Identifier: MIT
// The fields of a request's body, and what is wrong with them.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/lineup/channel_order.h"
#include "host/serve/http_message.h"

namespace ipplay::serve {

// One object of JSON. A field that is missing or null has no value; the first mistake is kept, and
// what was asked for has no value then.
class RequestFields {
 public:
  // An empty body has no fields. Fields that are not among the known ones are a mistake.
  RequestFields(const std::string& body, std::initializer_list<std::string_view> known);

  std::optional<std::string> Text(const std::string& name);
  std::optional<double> Number(const std::string& name);
  // A number, or a text as of --bitrate.
  std::optional<double> BitRate(const std::string& name);
  std::optional<std::int64_t> Whole(const std::string& name, std::int64_t lowest,
                                    std::int64_t highest);
  std::optional<bool> Flag(const std::string& name);
  // 1 to 100 bytes without control characters.
  std::optional<std::string> Name(const std::string& name);
  // As options of a command line: numbers as they are written, arrays as several values.
  std::optional<std::vector<ChannelOption>> Options(const std::string& name);

  void Blame(const std::string& field, const std::string& error);
  // Fails where it is missing, too.
  template <typename Value>
  bool Require(const std::string& name, const std::optional<Value>& value) {
    if (!value) {
      Blame(name, name + ": missing; it is required");
    }
    return value.has_value();
  }

  const std::optional<HttpResponse>& Error() const { return error_; }

 private:
  const Json* Find(const std::string& name) const;

  Json json_ = Json::object();
  std::optional<HttpResponse> error_;
};

// "options.lose" of "--lose: ..." or "lose: ...", where a sentence begins so; else "options".
std::string FieldOf(const std::string& sentence);

}  // namespace ipplay::serve
