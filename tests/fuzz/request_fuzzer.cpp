// SPDX-License-Identifier: MIT
// Hostile requests, from their bytes to what the server's parts make of them: the path, who may
// ask, the fields of the body, and the options in them.
#include <CLI/CLI.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "host/lineup/lineup_file.h"
#include "host/serve/access.h"
#include "host/serve/http_header.h"
#include "host/serve/meter_order.h"
#include "host/serve/order.h"
#include "host/serve/request_fields.h"

namespace {

namespace http = boost::beast::http;
using namespace ipplay;
using namespace ipplay::serve;

constexpr std::uint32_t kHeaderBytes = 16 << 10;

// What comes back is JSON that a client can read, and hands on no line end.
void Judge(const std::optional<HttpResponse>& response) {
  if (response && Json::parse(response->body, nullptr, false).is_discarded()) {
    std::abort();
  }
}

void ReadBody(const std::string& body) {
  RequestFields fields(body, {"name", "options", "count", "ppm", "bitrate", "start", "text"});
  const auto name = fields.Name("name");
  const auto options = fields.Options("options");
  const auto count = fields.Whole("count", 1, 1000);
  const auto rate = fields.BitRate("bitrate");
  fields.Number("ppm");
  fields.Flag("start");
  const auto text = fields.Text("text");
  Judge(fields.Error());
  if ((name && (name->empty() || name->find('\n') != std::string::npos)) ||
      (count && (*count < 1 || *count > 1000)) || (rate && fields.Error())) {
    std::abort();
  }
  static const auto media = MediaStore::Open({});
  if (options) {
    ParseMeterOptions(*options);
    const auto order = MakeOrder(*options, *media);
    // No file can be named where there is no folder.
    if (order && order->file.IsOpen()) {
      std::abort();
    }
    if (order) {
      ParseChannelOptions(order->options);
    }
  }
  if (text) {
    ParseLineup(*text, "");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  http::request_parser<http::string_body> parser;
  parser.eager(true);
  parser.header_limit(kHeaderBytes);
  boost::system::error_code error;
  parser.put(boost::asio::buffer(data, size), error);
  if (error || !parser.is_header_done()) {
    // Bodies are worth a look without a header, too.
    ReadBody(std::string(data, data + size));
    return 0;
  }
  static const AccessRules rules{{"media.example"}, "0123456789abcdef"};
  HttpRequest request;
  if (TakeHeader(parser.get(), request)) {
    Judge(Refuse(rules, request));
    for (const std::string& segment : request.segments) {
      if (segment.empty() || segment == "." || segment == ".." ||
          segment.find('\0') != std::string::npos) {
        std::abort();
      }
    }
  }
  ReadBody(parser.get().body());
  return 0;
}
