// SPDX-License-Identifier: MIT
#include "host/measure/live_files.h"

#include <utility>

namespace ipplay::measure {
namespace {

std::optional<Failure> Create(const char* option, const std::string& path,
                              std::unique_ptr<LineFile>& file) {
  if (path.empty()) {
    return std::nullopt;
  }
  auto created = LineFile::Create(option, path);
  if (!created) {
    return created.Error();
  }
  file = std::make_unique<LineFile>(std::move(*created));
  return std::nullopt;
}

}  // namespace

Result<LiveFiles> LiveFiles::Create(const MeasureOptions& options) {
  LiveFiles files;
  if (auto failure = measure::Create("--events", options.events_file, files.events_file_)) {
    return *std::move(failure);
  }
  if (auto failure = measure::Create("--per-second", options.seconds_file, files.seconds_file_)) {
    return *std::move(failure);
  }
  if (options.seconds_file.ends_with(".csv")) {
    files.seconds_format_ = SecondLines::Format::kCsv;
  }
  return files;
}

void LiveFiles::Start(Measurement& measurement, const RunInfo& run) {
  if (events_file_ != nullptr) {
    events_ = std::make_unique<EventLines>(
        [file = events_file_.get()](std::string_view line) { file->Write(line); },
        measurement.Streams());
    events_->Start(run);
    measurement.Events().ForwardTo(events_.get());
  }
  if (seconds_file_ != nullptr) {
    seconds_ = std::make_unique<SecondLines>(
        seconds_format_, [file = seconds_file_.get()](std::string_view line) { file->Write(line); },
        measurement.Streams());
    measurement.ReportSecondsTo(seconds_.get());
  }
}

void LiveFiles::Finish(Measurement& measurement) {
  measurement.Events().ForwardTo(nullptr);
  if (events_ != nullptr) {
    events_->Finish(measurement.EndNs());
  }
}

std::optional<Failure> LiveFiles::WriteFailure() const {
  for (const LineFile* file : {events_file_.get(), seconds_file_.get()}) {
    if (file != nullptr && file->WriteFailure()) {
      return file->WriteFailure();
    }
  }
  return std::nullopt;
}

}  // namespace ipplay::measure
