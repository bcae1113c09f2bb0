// SPDX-License-Identifier: MIT
// What happened when: a fault of the traffic or of the capture, with its time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ipplay::measure {

enum class EventKind : std::uint8_t {
  kLoss,              // amount: RTP packets or, of plain UDP, transport packets
  kRepeat,            // amount: packets
  kReordered,         // amount: places
  kRestart,           // of the sender: a new RTP numbering
  kSilenceBegan,      // amount: ns without a frame of the stream so far
  kSilence,           // amount: ns without a frame of the stream; time is its end
  kRate,              // amount: bit/s of payload, unlike those of the seconds before
  kChecksum,          // amount: 4 for IPv4's, 17 for UDP's
  kSyncLoss,          // TR 101 290 1.1
  kSyncByte,          // 1.2
  kPat,               // 1.3; amount: ns since the last one
  kContinuity,        // 1.4; amount: transport packets missing, 0 where that cannot be known
  kPmt,               // 1.5; amount: ns since the last one
  kPid,               // 1.6; amount: ns since the last packet
  kTransport,         // 2.1
  kCrc,               // 2.2; amount: table_id
  kPcrRepetition,     // 2.3a; amount: ns since the last one
  kPcrDiscontinuity,  // 2.3b; amount: ns of the jump
  kPcrAccuracy,       // 2.4; amount: ns
  kPts,               // 2.5; amount: ns since the last one
  kCat,               // 2.6
  kSiRepetition,      // 3.2; amount: ns; detail: table_id
  kUnreferencedPid,   // 3.4
  kCaptureDrop,       // amount: frames that the capture itself lost
  kLink,              // amount: 0 down, 1 up
  kClockStep,         // of the time stamps; amount: ns, below 0 back
  kFecParity,         // FEC that is not the parity of what it protects
  kFecUnrepaired,     // amount: RTP packets in a row that FEC could not repair
  kTwinLoss,          // amount: RTP packets in a row that neither path of twins has
  kTwinDifferent,     // an RTP packet that is not the same on both paths
};

inline constexpr std::size_t kEventKinds = static_cast<std::size_t>(EventKind::kTwinDifferent) + 1;

struct Event {
  static constexpr std::uint32_t kNoStream = UINT32_MAX;
  static constexpr std::uint16_t kNoPid = UINT16_MAX;

  std::int64_t time_ns = 0;  // since 1970, of the frame that showed it
  EventKind kind = EventKind::kLoss;
  std::uint32_t stream = kNoStream;  // in order of arrival
  std::uint16_t pid = kNoPid;
  std::int64_t amount = 0;  // as its kind says
  std::int32_t detail = 0;  // as its kind says
};

class EventSink {
 public:
  EventSink() = default;
  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;
  virtual ~EventSink() = default;

  virtual void Report(const Event& event) = 0;
};

}  // namespace ipplay::measure
