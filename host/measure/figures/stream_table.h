// SPDX-License-Identifier: MIT
// Hands every UDP frame to its stream, and finds out which flows carry RTP.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "host/measure/figures/fec_pairing.h"
#include "host/measure/figures/settings.h"
#include "host/measure/figures/stream.h"
#include "host/measure/figures/twin_table.h"

namespace ipplay::measure {

// What memory was not enough for.
struct GivenUp {
  std::uint64_t plots = 0;    // histories of streams
  std::uint64_t details = 0;  // streams whose transport stream is no longer looked into
  std::uint64_t streams = 0;  // streams of which no more frames are taken
  std::uint64_t frames = 0;   // of those and of new streams; they are among the untracked ones
};

class StreamTable {
 public:
  // Events go to `events`, which outlives this.
  StreamTable(const MeasurementSettings& settings, EventSink* events)
      : settings_(settings),
        events_(events),
        fec_(settings.memory_bytes / kShareForFec),
        twins_(settings, events) {}

  void Add(std::int64_t time_ns, std::uint32_t frame_bytes, const DecodedFrame& frame);
  // Decides what is still undecided; call it once, after the last frame. The measurement went on
  // from `start_ns` to `end_ns`.
  void Finish(std::int64_t start_ns, std::int64_t end_ns);

  // In the order of their first frames.
  const std::vector<std::unique_ptr<Stream>>& Streams() const { return streams_; }
  // Streams that are the same RTP on two paths; known in the end.
  const std::vector<std::unique_ptr<TwinPair>>& Twins() const { return twins_.Pairs(); }
  // Frames of streams beyond the limits of streams and of memory.
  std::uint64_t UntrackedFrames() const { return untracked_frames_; }
  // Frames of a flow with RTP that have no RTP header of version 2.
  std::uint64_t MalformedRtp() const { return malformed_rtp_; }
  // RTCP packets on the port of RTP: no part of a stream.
  std::uint64_t RtcpPackets() const { return rtcp_packets_; }
  // What was given up to stay within MeasurementSettings::memory_bytes.
  const GivenUp& Given() const { return given_up_; }
  // How often a flow that had an SSRC showed a new one.
  std::uint64_t SsrcChanges() const { return ssrc_changes_; }

 private:
  static constexpr std::uint64_t kShareForFec = 16;

  // A first frame that may or may not be RTP waits for the second one to tell.
  struct HeldFrame {
    std::int64_t time_ns;
    std::uint32_t frame_bytes;
    DecodedFrame frame;
    std::vector<std::uint8_t> payload;  // what `frame` refers to
    RtpHeader rtp;
  };
  enum class FlowKind { kUndecided, kRtp, kPlain };
  struct Flow {
    FlowKind kind = FlowKind::kUndecided;
    std::uint32_t number = 0;
    bool has_ssrc = false;
    Stream* last = nullptr;  // the stream of the flow's last frame
    std::unique_ptr<HeldFrame> held;
  };

  Flow* FlowOf(const FlowKey& key);
  void Decide(Flow& flow, std::int64_t time_ns, std::uint32_t frame_bytes,
              const DecodedFrame& frame);
  void Settle(Flow& flow, FlowKind kind);
  void Deliver(Flow& flow, std::int64_t time_ns, std::uint32_t frame_bytes,
               const DecodedFrame& frame);
  Stream* StreamOf(Flow& flow, const FlowKey& key, std::optional<std::uint32_t> ssrc);
  Stream* NewStream(const StreamId& id);
  // More is kept than may be.
  bool IsFull() const { return KeptBytes() > MostBytes(); }
  std::int64_t KeptBytes() const;
  std::int64_t MostBytes() const;
  void NoteUntracked();
  void MakeRoom(Stream& growing);
  void GiveUpLargestDetails();

  MeasurementSettings settings_;
  EventSink* events_;
  FecPairing fec_;
  TwinTable twins_;
  std::unordered_map<FlowKey, Flow, FlowKeyHash> flows_;
  // By the flow's number and the SSRC.
  std::unordered_map<std::uint64_t, Stream*, KeyedHash> rtp_streams_;
  std::vector<std::unique_ptr<Stream>> streams_;
  FlowKey last_key_;
  Flow* last_flow_ = nullptr;
  std::uint64_t untracked_frames_ = 0;
  std::uint64_t malformed_rtp_ = 0;
  std::uint64_t rtcp_packets_ = 0;
  std::optional<std::int64_t> bytes_before_;  // that the thread held before the first frame
  bool may_have_details_ = false;             // of streams, to give up
  GivenUp given_up_;
  std::uint64_t ssrc_changes_ = 0;
};

}  // namespace ipplay::measure
