// SPDX-License-Identifier: MIT
#include "host/serve/meter_store.h"

#include <fmt/format.h>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <future>
#include <type_traits>
#include <utility>

#include "host/base/capabilities.h"
#include "host/measure/results/json_view.h"
#include "host/serve/request_fields.h"

namespace ipplay::serve {
namespace {

// A page of its own, which brings its styles along and needs nothing else.
constexpr const char* kReportPolicy =
    "default-src 'none'; style-src 'unsafe-inline'; img-src data:; frame-ancestors 'none'";

void AddCounts(const measure::Summary& summary, Json& json) {
  const measure::TotalSummary& total = summary.total;
  json["streams"] = total.streams;
  json["frames"] = total.rate.frames;
  json["frame_rate_bps"] = total.rate.frames > 1 ? Json(total.rate.frame_bit_rate) : Json();
  json["lost"] = total.lost;
  json["lost_ts_packets"] = total.lost_ts_packets;
  json["duplicates"] = total.duplicates;
  json["reordered"] = total.reordered;
  json["checksums_bad"] = total.checksums.bad_ip + total.checksums.bad_udp;
  json["ts_errors"] = total.ts_errors;
  json["ts_second_priority_errors"] = total.ts_second_priority_errors;
  json["ts_third_priority_errors"] = total.ts_third_priority_errors;
  json["dropped_by_kernel"] = summary.capture.drops.by_kernel;
  json["dropped_by_adapter"] = summary.capture.drops.by_adapter;
}

Json JsonOf(const Meter& meter) {
  Json json = FiguresJson(meter);
  const Meter::Figures figures = meter.Read();
  json["source"] = meter.Order().options.source;
  json["options"] = Json::object();
  for (const auto& [option, value] : meter.Order().given) {
    json["options"][option.substr(2)] = value;
  }
  json["started_ns"] = figures.started_ns;
  json["ended_ns"] = figures.ended_ns ? Json(*figures.ended_ns) : Json();
  json["last_error"] = figures.last_error.empty() ? Json() : Json(figures.last_error);
  return json;
}

HttpResponse WholeResponse(const Meter& meter, HttpStatus status = HttpStatus::kOk) {
  Json json{{"schema", kJsonSchema}};
  json.update(JsonOf(meter));
  const auto summary = meter.Read().summary;
  json["result"] = summary ? Json::parse(measure::JsonText(*summary, {})) : Json();
  return JsonResponse(json, status);
}

HttpResponse Taken(const std::string& name) {
  return ErrorResponse(HttpStatus::kConflict,
                       fmt::format("name: {} is taken; give another one", name), "name");
}

}  // namespace

Json FiguresJson(const Meter& meter) {
  const Meter::Figures figures = meter.Read();
  Json json{{"name", meter.Order().name}, {"state", NameOf(figures.state)}};
  AddCounts(figures.summary ? *figures.summary : measure::Summary{}, json);
  return json;
}

// Keeps the right to open adapters, and does nothing else with it.
class MeterStore::Opener {
 public:
  Opener() {
    Do([] { KeepCapabilities({kCapNetRaw}); });
  }

  Result<MeterSource> Open(const MeterOrder& order) {
    return Do([&order] { return OpenMeterSource(order); });
  }

 private:
  // Waits for it.
  template <typename Work>
  std::invoke_result_t<Work> Do(Work work) {
    std::packaged_task<std::invoke_result_t<Work>()> task(std::move(work));
    auto result = task.get_future();
    boost::asio::post(pool_, [&task] { task(); });
    return result.get();
  }

  boost::asio::thread_pool pool_{1};
};

MeterStore::MeterStore(EventFeed& feed) : feed_(feed), opener_(std::make_unique<Opener>()) {}

MeterStore::~MeterStore() = default;

std::shared_ptr<Meter> MeterStore::Find(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = meters_.find(name);
  return found == meters_.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<const Meter>> MeterStore::All() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<const Meter>> all;
  for (const auto& [name, meter] : meters_) {
    all.push_back(meter);
  }
  return all;
}

HttpResponse MeterStore::List() const {
  Json json{{"schema", kJsonSchema}, {"meters", Json::array()}};
  for (const auto& meter : All()) {
    json["meters"].push_back(JsonOf(*meter));
  }
  return JsonResponse(json);
}

std::string MeterStore::FreeName() const {
  for (int number = 1;; ++number) {
    auto name = fmt::format("meter-{}", number);
    if (!Find(name)) {
      return name;
    }
  }
}

HttpResponse MeterStore::Create(const HttpRequest& request) {
  RequestFields fields(request.body, {"name", "options"});
  const auto given = fields.Name("name");
  const auto options = fields.Options("options");
  if (!fields.Require("options", options) || fields.Error()) {
    return *fields.Error();
  }
  auto parsed = ParseMeterOptions(*options);
  if (const auto* const wrong = std::get_if<std::string>(&parsed)) {
    return ErrorResponse(HttpStatus::kBadRequest, *wrong, FieldOf(*wrong));
  }
  auto& order = std::get<MeterOrder>(parsed);
  order.name = given.value_or(FreeName());
  if (All().size() >= kMost) {
    return ErrorResponse(HttpStatus::kTooMany,
                         fmt::format("{} meters are there; delete some", kMost));
  }
  if (Find(order.name)) {
    return Taken(order.name);
  }
  auto source = opener_->Open(order);
  if (!source) {
    return FailureResponse(source.Error(), FieldOf(source.Error().message));
  }
  const std::string name = order.name;
  const auto meter = std::make_shared<Meter>(std::move(order), std::move(*source), feed_);
  {
    const std::lock_guard lock(mutex_);
    if (!meters_.emplace(name, meter).second) {
      return Taken(name);
    }
  }
  auto response = WholeResponse(*meter, HttpStatus::kCreated);
  response.headers.emplace_back("Location", AddressOf("meters", name));
  return response;
}

HttpResponse MeterStore::Get(const std::string& name) const {
  const auto meter = Find(name);
  return meter ? WholeResponse(*meter) : NoSuch("meter", name);
}

HttpResponse MeterStore::Stop(const std::string& name) {
  const auto meter = Find(name);
  if (!meter) {
    return NoSuch("meter", name);
  }
  meter->Stop();
  return WholeResponse(*meter);
}

HttpResponse MeterStore::Delete(const std::string& name) {
  std::shared_ptr<Meter> meter;
  {
    const std::lock_guard lock(mutex_);
    if (const auto found = meters_.find(name); found != meters_.end()) {
      meter = std::move(found->second);
      meters_.erase(found);
    }
  }
  if (!meter) {
    return NoSuch("meter", name);
  }
  meter->Stop();
  feed_.Append("meter", {{"meter", name}, {"state", "removed"}, {"text", "removed"}});
  return NoContent();
}

HttpResponse MeterStore::Report(const std::string& name) const {
  const auto meter = Find(name);
  if (!meter) {
    return NoSuch("meter", name);
  }
  const auto page = meter->Report();
  if (!page) {
    return ErrorResponse(HttpStatus::kConflict,
                         fmt::format("{}: still measures; stop it for its report", name));
  }
  HttpResponse response;
  response.content_type = "text/html; charset=utf-8";
  response.body = *page;
  response.headers.emplace_back("Content-Security-Policy", kReportPolicy);
  return response;
}

}  // namespace ipplay::serve
