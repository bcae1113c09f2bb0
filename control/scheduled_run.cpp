// SPDX-License-Identifier: MIT
#include "control/scheduled_run.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>

#include "control/datagram_layout.h"
#include "control/parametric_settings.h"
#include "control/playout_rules.h"
#include "platform/wall_clock.h"

namespace ipplayout {
namespace {

using std::chrono::nanoseconds;

// Frames that are built ahead: some 50 ms of them, so that a change shows soon, but enough to sleep
// on and not so many that a fast stream takes up much memory.
constexpr double kBuiltAhead = 0.05;  // seconds
constexpr double kLeastBuilt = 16;
constexpr double kMostBuilt = 2048;
// Where marks do not say.
constexpr double kUsualFramesPerSecond = 1000;
// Marks that are close together may say anything. Sums of these are exact.
constexpr double kMostFramesPerSecond = 1e9;

constexpr std::uint32_t kSequenceInRtp = 2;

constexpr std::size_t kMostLedgerBytes = 1 << 30;

WhenLate RuleOf(std::uint32_t late) {
  switch (late) {
    case IPPLAYOUT_LATE_CATCH_UP:
      return WhenLate::kCatchUp;
    case IPPLAYOUT_LATE_SHIFT:
      return WhenLate::kShift;
    case IPPLAYOUT_LATE_DROP:
      return WhenLate::kDrop;
    default:
      return WhenLate::kBounded;
  }
}

// -1 for none.
std::int64_t Count(std::optional<nanoseconds> time) {
  return time ? time->count() : -1;
}

// The headers of the stream but for what is an FEC stream's own. Its marker is the parity of those
// of the datagrams that one of it protects (RFC 2733, 7.1), and they all have the same one.
PlayoutSettings ForFec(const IpPlayoutSettings& ordered, const PlayoutSettings& media,
                       FecFeed::Kind kind, platform::Random& random) {
  constexpr std::uint32_t kColumnStep = 2;
  constexpr std::uint32_t kRowStep = 4;
  constexpr std::uint32_t kMarker = 0x80;
  const std::uint32_t port_step = kind == FecFeed::kRow ? kRowStep : kColumnStep;
  const bool is_odd = (kind == FecFeed::kRow ? ordered.FecColumns : ordered.FecRows) % 2 == 1;
  PlayoutSettings fec = media;
  fec.error_insertion = ordered.FecErrors;
  ProtocolHeadersSettings& headers = fec.params.ProtocolHeadersSettings;
  headers.UDPHeaderSettings.DestinationPort += port_step;
  headers.UDPHeaderSettings.SourcePort += port_step;
  headers.RTPHeaderSettings.PayloadType =
      ordered.FecPayloadType | (is_odd ? headers.RTPHeaderSettings.PayloadType & kMarker : 0);
  headers.RTPHeaderSettings.SSRC = ordered.FecSSRC;
  headers.RTPHeaderSettings.SequenceNumber = static_cast<std::uint16_t>(random.Next64() >> 48);
  return fec;
}

}  // namespace

ScheduledRun::ScheduledRun(const IpPlayoutSettings& settings, const Sources& sources,
                           Surroundings& surroundings, Owner& owner, const std::string& ledger_path)
    : ordered_(settings),
      seed_(settings.Seed != 0 ? settings.Seed : platform::DrawSeed()),
      random_(seed_),
      settings_(ToPlayoutSettings(settings, random_)),
      source_(sources.data),
      marks_(sources.marks),
      changes_(sources.changes),
      surroundings_(surroundings),
      owner_(owner),
      ledger_path_(ledger_path),
      errors_(settings_.params.ProtocolMode, random_),
      faults_(sources.orders, errors_, random_),
      clock_(settings.FirstRtpTimestamp) {}

// Lets go of what a start had that was refused half-way.
ScheduledRun::~ScheduledRun() {
  if (builder_thread_ != nullptr) {
    surroundings_.builders.Leave(builder_thread_);
  }
  if (route_.destination != nullptr) {
    try {
      surroundings_.destinations.Leave(route_);
    } catch (const std::exception&) {
      // There was no memory for the sentence that says what went wrong.
    }
  }
}

Failure ScheduledRun::Prepare() {
  const std::uint32_t headers = HeaderLength(settings_);
  const auto layout = LayOutDatagram(settings_, headers);
  if (!layout) {
    return {IPPLAYOUT_BAD_VALUE, "the datagrams have no room for their headers"};
  }
  const std::uint32_t payload = layout->datagram_size - headers;
  LoadManagers();
  if (!(settings_.IPBitRate > 0) && !marks_.Last()) {
    return {IPPLAYOUT_BAD_STATE, "nothing says when data leaves; set BitRate or marks"};
  }
  SetRate(payload, layout->datagram_size);
  parametric_.ComputeBurstCount(layout->datagram_size,
                                FramesPerSecond(payload) * layout->datagram_size * 8);
  const std::uint32_t rtp_offset = IsRtp() ? headers - RtpDataFlowOut::kHeaderLength : headers;
  if (Failure failure = surroundings_.destinations.Enter(ordered_, rtp_offset, route_)) {
    return failure;
  }
  sender_ = route_.Sink().Name();
  const StreamRules rules = RulesFor(payload);
  const std::size_t fec_room = ordered_.FecColumns > 0 ? FecEncoder::kHeaderLength : 0;
  if (Failure failure = MakeStream(rules, layout->datagram_size + fec_room)) {
    return failure;
  }
  BuilderRules builder_rules;
  builder_rules.shape = {headers, layout->datagram_size, layout->packet_size,
                         settings_.TSPacketSize};
  builder_rules.copies_share_time = ordered_.CopiesShareTime == IPPLAYOUT_ON;
  builder_rules.rtp_sequence_offset = IsRtp() ? rtp_offset + kSequenceInRtp : 0;
  builder_ = std::make_unique<DatagramBuilder>(
      BuilderParts{source_, marks_, changes_, errors_, faults_, replication_, parametric_, clock_,
                   statistics_, stream_->ring, stream_->all_built, has_left_, *this},
      builder_rules);
  chain_.Build(settings_, &errors_, &replication_, builder_.get(), &clock_);
  builder_->SetTop(chain_.Top());
  if (ordered_.FecColumns > 0) {
    BuildFec(headers, payload);
  }
  source_.SetPacketSize(layout->packet_size);
  return {};
}

Failure ScheduledRun::MakeStream(const StreamRules& rules, std::size_t longest_frame) {
  const bool with_bytes = !ledger_path_.empty();
  const std::size_t ledger_bytes =
      DepartureLedger::BytesFor(ordered_.LedgerFrames, with_bytes ? longest_frame : 0);
  if (ledger_bytes > kMostLedgerBytes) {
    return {IPPLAYOUT_BAD_VALUE,
            "LedgerFrames is " + std::to_string(ordered_.LedgerFrames) + ", which takes " +
                std::to_string(ledger_bytes) + " bytes with whole frames; it can be up to " +
                std::to_string(kMostLedgerBytes / (ledger_bytes / ordered_.LedgerFrames))};
  }
  // A burst that is not built when it begins does not leave back to back.
  const double bursts = parametric_.IsBurstMode() != 0 ? 2.0 * parametric_.GetBurstCount() : 0;
  const double ahead =
      std::clamp(std::max(rules.frames_per_second * kBuiltAhead, bursts), kLeastBuilt, kMostBuilt);
  StreamListener& listener = *this;
  stream_ = std::make_unique<ScheduledStream>(
      static_cast<std::size_t>(std::ceil(ahead)), longest_frame,
      ScheduledStream::LedgerSize{ordered_.LedgerFrames, with_bytes}, rules, route_.Sink(),
      listener);
  const bool is_allocated = stream_->ring.IsAllocated() && stream_->ledger.IsAllocated();
  builder_thread_ = is_allocated ? surroundings_.builders.Enter() : nullptr;
  if (builder_thread_ == nullptr) {
    return {IPPLAYOUT_NO_RESOURCES,
            "memory or threads have run out; close playouts or raise the "
            "limits (ulimit -u, -v)"};
  }
  return with_bytes ? OpenLedgerFile() : Failure();
}

Failure ScheduledRun::OpenLedgerFile() {
  const bool is_virtual = route_.Sink().IsVirtual();
  // The times of a capture file count from 0.
  platform::WallClock clock;
  clock.Compare();
  const nanoseconds epoch = is_virtual ? nanoseconds(0) : -clock.ToMonotonic(nanoseconds(0));
  auto file = LedgerFile::Open(ledger_path_, ordered_.Destination, epoch, stream_->ledger);
  if (file.value == nullptr) {
    return {IPPLAYOUT_BAD_DESTINATION,
            "ledger " + ledger_path_ + ": cannot " + file.step + ": " + std::strerror(file.error)};
  }
  if (!is_virtual && !file.value->Start()) {
    return {IPPLAYOUT_NO_RESOURCES,
            "a thread cannot be started; raise the limit of processes (ulimit -u) or of memory"};
  }
  ledger_file_ = std::move(file.value);
  return {};
}

ScheduledRun::FecStream::FecStream(const IpPlayoutSettings& ordered, const PlayoutSettings& media,
                                   FecFeed::Kind kind, platform::Random& random, CSwClock& clock,
                                   Sender* bottom)
    : settings(ForFec(ordered, media, kind, random)), errors(settings.params.ProtocolMode, random) {
  errors.Configure(settings.error_insertion);
  replication.StartDatagram();
  replication.SetIncrements(settings.params.ProtocolHeadersIncrements,
                            settings.params.ReplicationCount);
  replication.SetHeaderSettings(settings.params.ProtocolHeadersSettings);
  chain.Build(settings, &errors, &replication, bottom, &clock);
}

void ScheduledRun::BuildFec(std::uint32_t headers, std::uint32_t payload_bytes) {
  std::array<FecPort, FecFeed::kKinds> ports;
  for (const FecFeed::Kind kind : {FecFeed::kColumn, FecFeed::kRow}) {
    auto& stream = fec_streams_[kind];
    stream =
        std::make_unique<FecStream>(ordered_, settings_, kind, random_, clock_, builder_.get());
    ports[kind] = {stream->chain.Top(), &stream->replication, &stream->errors};
  }
  const FecMatrix matrix{ordered_.FecColumns, ordered_.FecRows,
                         ordered_.FecProtectsRows == IPPLAYOUT_ON,
                         ordered_.FecStaggered != IPPLAYOUT_ON};
  fec_ = std::make_unique<FecFeed>(matrix, headers, payload_bytes, ports);
  builder_->SetFec(fec_.get());
}

void ScheduledRun::LoadManagers() {
  errors_.Configure(settings_.error_insertion);
  faults_.Configure(ordered_.Faults, settings_.error_insertion.RandomizeErrors != 0);
  replication_.StartDatagram();
  replication_.SetIncrements(settings_.params.ProtocolHeadersIncrements,
                             settings_.params.ReplicationCount);
  replication_.SetHeaderSettings(settings_.params.ProtocolHeadersSettings);
  parametric_.UseRandom(random_);
  LoadParametricSettings(parametric_, settings_.parametric);
}

void ScheduledRun::SetRate(std::uint32_t payload_bytes, std::uint32_t datagram_bytes) {
  if (settings_.IPBitRate > 0) {
    const double frame_time = datagram_bytes * 8e9 / StreamBitRate(settings_);
    marks_.SetRate(frame_time / payload_bytes);
  }
}

double ScheduledRun::FramesPerSecond(std::uint32_t payload_bytes) const {
  const double bytes_per_second = marks_.MeanRate().value_or(kUsualFramesPerSecond * payload_bytes);
  return std::min(bytes_per_second / payload_bytes, kMostFramesPerSecond);
}

StreamRules ScheduledRun::RulesFor(std::uint32_t payload_bytes) const {
  StreamRules rules;
  rules.is_precise = ordered_.Precision == IPPLAYOUT_PRECISE;
  rules.late = {RuleOf(ordered_.Late), ordered_.CatchUp, nanoseconds(ordered_.LateAfterNs)};
  rules.ends_when_refused = ordered_.Refused == IPPLAYOUT_REFUSED_FAILS;
  rules.wants_stamps = ordered_.Stamps == IPPLAYOUT_ON;
  rules.frames_per_second =
      FramesPerSecond(payload_bytes) * (std::max(settings_.params.ReplicationCount, 0) + 1);
  return rules;
}

void ScheduledRun::Launch() {
  is_launched_ = true;
  source_.BeginRun();
  RequestFrames();
}

// The builder first: nobody requests the stream behind it.
Failure ScheduledRun::Withdraw() {
  builder_thread_->Detach(*builder_);
  surroundings_.builders.Leave(builder_thread_);
  Transmitter().Remove(*stream_);
  builder_thread_ = nullptr;
  Failure failure = surroundings_.destinations.Leave(route_);
  if (ledger_file_ == nullptr || !is_launched_) {
    return failure;
  }
  const int error = ledger_file_->Finish();
  return failure || error == 0
             ? failure
             : Failure(IPPLAYOUT_BAD_DESTINATION,
                       "ledger " + ledger_path_ +
                           " could not be written whole: " + std::strerror(error));
}

void ScheduledRun::OnFullLedger() {
  if (ledger_file_ != nullptr) {
    ledger_file_->Drain();
  }
}

void ScheduledRun::Pause(bool on) {
  stream_->wants_pause.store(on);
  Transmitter().Request(*stream_);
}

void ScheduledRun::OnChange(const RunChange& change) {
  errors_.Reschedule(change.errors);
  faults_.Configure(change.faults, change.errors.RandomizeErrors != 0);
  LoadJitter(parametric_, change.parametric);
}

void ScheduledRun::OnEnd(int error) {
  end_error_.store(error);
  has_left_.store(true);
  RequestFrames();
}

void ScheduledRun::ReadTiming(IpPlayoutTiming& out) const {
  const TimingRecord& timing = stream_->timing;
  const TimingRecord::Counts counts = timing.Read();
  const LatenessHistogram& lateness = timing.Lateness();
  const LatenessHistogram& stamps = timing.Stamps();
  out = {};
  out.OnTime = counts.on_time;
  out.Late = counts.late;
  out.LeftOut = counts.left_out;
  out.NotSent = counts.not_sent;
  out.Discarded = counts.discarded;
  out.LatenessP50Ns = Count(lateness.Percentile(50));
  out.LatenessP99Ns = Count(lateness.Percentile(99));
  out.LatenessP999Ns = Count(lateness.Percentile(99.9));
  out.LatenessMaxNs = Count(lateness.Maximum());
  out.FirstDepartureNs = counts.first_departure.count();
  out.LastDepartureNs = counts.last_departure.count();
  out.LongestGapNs = counts.longest_gap.count();
  out.ShiftNs = counts.shift.count();
  out.DryTimes = counts.dry_times;
  out.DryNs = counts.dry.count();
  out.Retries = counts.retries;
  out.Stamps = stamps.Count();
  out.StampP50Ns = Count(stamps.Percentile(50));
  out.StampP99Ns = Count(stamps.Percentile(99));
  out.StampP999Ns = Count(stamps.Percentile(99.9));
  out.StampMaxNs = Count(stamps.Maximum());
  out.LedgerLeftOut =
      stream_->ledger.LeftOut() + (ledger_file_ == nullptr ? 0 : ledger_file_->LeftOut());
  std::snprintf(out.Sender, sizeof out.Sender, "%s", sender_.c_str());
}

}  // namespace ipplayout
