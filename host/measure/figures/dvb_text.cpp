// SPDX-License-Identifier: MIT
#include "host/measure/figures/dvb_text.h"

#include <bitstream/dvb/si/strings.h>
#include <iconv.h>

#include <cerrno>
#include <map>
#include <optional>

namespace ipplay::measure {
namespace {

// The table of figure A.1 is ISO/IEC 6937 and a euro sign.
constexpr const char* kDefault = "ISO6937";
constexpr std::uint8_t kEuro = 0xA4;

// Control characters of one-byte tables are 0x80 to 0x9F (A.1), of which emphasis and line breaks
// alone are in use; UTF-8 and the two-byte tables have them at U+0080 and U+E080.
bool IsOneByteTable(const std::string& encoding) {
  return encoding.starts_with("ISO");
}

std::string WithoutControls(const std::string& utf8) {
  std::string text;
  for (std::size_t i = 0; i < utf8.size(); ++i) {
    const auto byte = static_cast<std::uint8_t>(utf8[i]);
    const auto next = static_cast<std::uint8_t>(i + 1 < utf8.size() ? utf8[i + 1] : 0);
    if (byte == 0xC2 && next < 0xA0) {
      ++i;
    } else if (byte == 0xEE && next == 0x82 && i + 2 < utf8.size()) {
      i += 2;
    } else if (byte >= 0x20 && byte != 0x7F) {
      text += utf8[i];
    }
  }
  return text;
}

constexpr const char* kEncodings[] = {kDefault,      "ASCII",       "ISO-8859-1",  "ISO-8859-2",
                                      "ISO-8859-3",  "ISO-8859-4",  "ISO-8859-5",  "ISO-8859-6",
                                      "ISO-8859-7",  "ISO-8859-8",  "ISO-8859-9",  "ISO-8859-10",
                                      "ISO-8859-11", "ISO-8859-13", "ISO-8859-14", "ISO-8859-15",
                                      "UCS-2BE",     "EUC-KR",      "GB2312",      "UTF-8"};

// The C library loads most tables as modules, and which ones must not be up to the traffic.
class Converters {
 public:
  Converters() {
    for (const char* encoding : kEncodings) {
      converters_[encoding] = ::iconv_open("UTF-8", encoding);
    }
  }
  Converters(const Converters&) = delete;
  Converters& operator=(const Converters&) = delete;
  ~Converters() {
    for (const auto& [encoding, converter] : converters_) {
      if (converter != kNone) {
        ::iconv_close(converter);
      }
    }
  }

  static const Converters& All() {
    static const Converters all;
    return all;
  }
  // In its first state; none where the system has no such table.
  std::optional<iconv_t> For(const std::string& encoding) const {
    const auto found = converters_.find(encoding);
    if (found == converters_.end() || found->second == kNone) {
      return std::nullopt;
    }
    ::iconv(found->second, nullptr, nullptr, nullptr, nullptr);
    return found->second;
  }

 private:
  static inline const iconv_t kNone = reinterpret_cast<iconv_t>(-1);

  std::map<std::string, iconv_t> converters_;
};

std::string ToUtf8(const std::string& encoding, std::string text) {
  const auto converter = Converters::All().For(encoding);
  std::string utf8;
  if (!converter) {
    for (const char c : text) {
      utf8 += static_cast<std::uint8_t>(c) < 0x80 ? c : '?';
    }
    return utf8;
  }
  char* in = text.data();
  std::size_t left = text.size();
  while (left > 0) {
    char buffer[256];
    char* out = buffer;
    std::size_t room = sizeof buffer;
    const std::size_t result = ::iconv(*converter, &in, &left, &out, &room);
    utf8.append(buffer, out);
    if (result == static_cast<std::size_t>(-1) && errno != E2BIG) {
      const bool is_euro = encoding == kDefault && static_cast<std::uint8_t>(*in) == kEuro;
      utf8 += is_euro ? "€" : "?";
      ++in;
      --left;
    }
  }
  return utf8;
}

}  // namespace

void PrepareDvbText() {
  Converters::All();
}

std::string DvbText(std::span<const std::uint8_t> text) {
  const std::uint8_t* rest = text.data();
  std::size_t length = text.size();
  const char* encoding = ::dvb_string_get_encoding(&rest, &length, kDefault);
  if (length == 0) {
    return {};
  }
  if (encoding == nullptr || *encoding == 0) {
    encoding = "ASCII";
  }
  std::string bytes;
  for (const std::uint8_t byte : std::span(rest, length)) {
    if (!IsOneByteTable(encoding) || byte < 0x80 || byte > 0x9F) {
      bytes += static_cast<char>(byte);
    }
  }
  return WithoutControls(ToUtf8(encoding, std::move(bytes)));
}

}  // namespace ipplay::measure
