// A network for one test: namespaces joined by veth pairs. Nothing in it has a name outside the
// test's process, so the kernel removes it all when that ends, in whatever way. Needs root; every
// failure is a std::runtime_error, which fails the test.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "driver/capture_driver.h"
#include "platform/descriptor.h"

struct pcap;

namespace ipplayout {

// A network namespace with nothing in it but loopback, which is up, and with IPv6 switched off, so
// that it sends nothing of its own accord.
class NetworkNamespace {
 public:
  NetworkNamespace();

  // Moves the calling thread into the namespace for as long as the result lives.
  class Visit {
   public:
    explicit Visit(const NetworkNamespace& visited);
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
    ~Visit();

   private:
    platform::Descriptor home_;
  };

  // Runs a shell command in the namespace.
  void Run(const std::string& command) const;
  // For example "net/ipv4/conf/all/arp_ignore".
  void SetSysctl(const std::string& name, const std::string& value) const;
  // What ip(8) takes for a namespace.
  std::string Path() const;

 private:
  platform::Descriptor descriptor_;
};

struct VethEnd {
  const NetworkNamespace& where;
  std::string name;
  MacAddress mac;
};

// Joins two namespaces by a cable. Both ends are up when it returns.
void MakeVeth(const VethEnd& one, const VethEnd& other);

// "near0" in `near` and "far0" in `far`, joined.
struct TestNetwork {
  static constexpr MacAddress kNearMac{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
  static constexpr MacAddress kFarMac{0x02, 0x00, 0x00, 0x00, 0x00, 0x02};

  TestNetwork();

  NetworkNamespace near;
  NetworkNamespace far;
};

// Allows IPv6 on an interface and gives it one address, at once and without a link-local one.
void AddIPv6Address(const NetworkNamespace& where, const std::string& interface,
                    const std::string& address);

struct TappedFrame {
  std::vector<std::uint8_t> bytes;
  std::chrono::microseconds time{0};  // of arrival, as the kernel stamped it
};

// Everything that arrives on an interface, from the construction on, in frames of up to 4096 bytes;
// also sends. It is libpcap,
// without any of the code under test.
class FrameTap {
 public:
  FrameTap(const NetworkNamespace& where, const std::string& interface);

  // The next `count` frames; fewer when none came for ten seconds.
  std::vector<TappedFrame> Collect(std::size_t count);
  // What has arrived by now.
  std::vector<TappedFrame> Drain();
  void Send(std::span<const std::uint8_t> frame);

 private:
  struct Close {
    void operator()(pcap* capture) const;
  };
  std::optional<TappedFrame> Next();

  std::unique_ptr<pcap, Close> capture_;
};

// What tshark prints as `fields`, separated by tabs, for one frame.
std::string Dissect(std::span<const std::uint8_t> frame, const std::vector<std::string>& fields);

}  // namespace ipplayout
