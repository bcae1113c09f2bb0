// SPDX-License-Identifier: MIT
// The contract between the library and whatever captures and injects frames below it. The product
// form is driver/pcap_driver.h, on libpcap; tests put a fake in its place.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "driver/send_queue.h"
#include "platform/addresses.h"
#include "platform/deadline_waiter.h"

namespace ipplayout {

using platform::MacAddress;

enum class AddressFamily { kIPv4, kIPv6, kOther };

// An address in network order; an IPv4 address fills the first four bytes.
struct AdapterAddress {
  AddressFamily family = AddressFamily::kOther;
  platform::Ipv6Address bytes{};
  std::uint32_t scope_id = 0;  // of an IPv6 link-local address, else 0
};

struct AddressEntry {
  std::optional<AdapterAddress> address;
  std::optional<AdapterAddress> netmask;
};

struct Adapter {
  std::string name;  // begins with kDevicePrefix
  std::optional<std::string> description;
  std::vector<AddressEntry> addresses;
};

inline constexpr char kDevicePrefix[] = "rpcap://";

struct OpenOptions {
  int snapshot_length = 65536;
  bool promiscuous = true;
  std::chrono::milliseconds read_timeout{1};
  int buffer_bytes = 0;  // kernel receive buffer; 0 is the capture library's own default
  // Hands each captured frame over as it comes, not in blocks that may take a few milliseconds.
  // Every frame then takes the room of a whole snapshot, rounded up, in the kernel's buffer.
  bool immediate = false;
  // Opens for sending: what is captured begins with the first read or filter, not with the opening.
  bool capture_later = false;
};

struct CapturedFrame {
  std::int64_t seconds = 0;
  std::int64_t microseconds = 0;
  std::span<const std::uint8_t> bytes;  // valid until the next read or the end of the handle
};

struct FilterResult {
  enum class Stage { kDone, kCompile, kSet };
  Stage stage = Stage::kDone;
  int code = 0;  // the capture library's negative result when `stage` is not kDone
};

// One opened adapter. Sending and receiving may happen on different threads; each of the two
// belongs to one thread at a time.
class CaptureHandle {
 public:
  static constexpr int kEthernetDataLink = 1;

  virtual ~CaptureHandle() = default;

  // Kind of link-layer header; kEthernetDataLink for adapters that can carry a playout.
  virtual int DataLink() const = 0;

  virtual FilterResult SetFilter(const char* text, std::uint32_t netmask) = 0;

  // Batches of several frames will be transmitted: from now on TransmitQueue takes the fastest way
  // that the adapter allows. Before the first one; a handle that has one way only ignores it.
  virtual void ExpectBatches() {}

  // Sends one whole frame, without its frame check sequence. True when the adapter took it.
  virtual bool SendFrame(std::span<const std::uint8_t> frame) = 0;

  // Sends the queued frames in order. When `synchronised`, each leaves at the time of the call plus
  // the difference between its time stamp and the first one's, as `waiter` reads the time; frames
  // that are due together leave together. Returns the bytes of the queue that were sent, headers
  // included: queue.Used() unless the adapter refused a frame, with which the batch ends, or could
  // not take all of them by the time that `waiter` gives up.
  virtual std::size_t TransmitQueue(const SendQueue& queue, bool synchronised,
                                    platform::DeadlineWaiter& waiter) = 0;

  // The next captured frame that passes the filter, or nothing within the read timeout.
  virtual std::optional<CapturedFrame> NextFrame() = 0;
};

class CaptureDriver {
 public:
  enum class MacResult { kDone, kNotOpened, kQueryFailed };

  virtual ~CaptureDriver() = default;

  // Every Ethernet-framed interface of the network namespace, loopback included, in the capture
  // library's order. Nothing when there is no list to get.
  virtual std::optional<std::vector<Adapter>> FindAllAdapters() = 0;

  // Null when the adapter does not exist or may not be opened. `name` begins with kDevicePrefix.
  virtual std::unique_ptr<CaptureHandle> Open(const std::string& name,
                                              const OpenOptions& options) = 0;

  // The adapter's current MAC address. `adapter` comes without kDevicePrefix. `system_error` gets
  // the system's error number when the result is kNotOpened.
  virtual MacResult QueryMac(const std::string& adapter, MacAddress& mac,
                             unsigned long& system_error) = 0;
};

// The driver that this platform provides; lives as long as the library.
CaptureDriver& PlatformDriver();

}  // namespace ipplayout
