// SPDX-License-Identifier: MIT
#include "driver/udp_socket_sink.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include "platform/address_text.h"
#include "platform/native_thread.h"
#include "tests/support/own_network.h"
#include "tests/support/stamped_sending.h"

namespace ipplayout {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kOffset = 42;

IpAddress Address(const char* text) {
  if (const auto ipv4 = platform::ParseIPv4(text)) {
    return *ipv4;
  }
  return *platform::ParseIPv6(text);
}

// 0xEE where the frame's own headers are, which are not sent.
Bytes Frame(std::uint8_t content, std::size_t payload = 100) {
  Bytes frame(kOffset + payload, content);
  std::fill_n(frame.begin(), kOffset, std::uint8_t{0xEE});
  return frame;
}

std::unique_ptr<UdpSocketSink> Open(const UdpSinkSettings& settings) {
  auto opened = UdpSocketSink::Open(settings);
  EXPECT_EQ(opened.error, 0) << opened.step;
  return std::move(opened.value);
}

UdpSinkSettings To(const char* address, std::uint16_t port, bool stamps = false) {
  UdpSinkSettings settings;
  settings.socket.destination = Address(address);
  settings.socket.destination_port = port;
  settings.payload_offset = kOffset;
  settings.stamps = stamps;
  return settings;
}

// A socket on a loopback port of the system's choice.
class Receiver {
 public:
  Receiver() : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const int on = 1;
    ::setsockopt(socket_.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);  // as players do
    EXPECT_EQ(::bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(::getsockname(socket_.Get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    port_ = ntohs(address.sin_port);
    const int bytes = 64 << 20;
    ::setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes);
    const timeval minute{60, 0};  // for what never comes
    ::setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &minute, sizeof minute);
  }

  std::uint16_t Port() const { return port_; }
  Bytes Next() const {
    Bytes datagram(1 << 16);
    const ssize_t size = ::recv(socket_.Get(), datagram.data(), datagram.size(), 0);
    datagram.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return datagram;
  }

 private:
  platform::Descriptor socket_;
  std::uint16_t port_ = 0;
};

// What stands in an IPv4 or IPv6 header (RFC 791, RFC 8200) and a UDP header (RFC 768).
struct Headers {
  std::string source, destination;
  int source_port, destination_port;
  int hop_limit, traffic_class, dont_fragment, flow_label;
  bool operator==(const Headers&) const = default;
};

template <typename Array>
Array ArrayAt(const Bytes& frame, std::size_t at) {
  Array array;
  std::copy_n(frame.begin() + static_cast<std::ptrdiff_t>(at), array.size(), array.begin());
  return array;
}

Headers HeadersOf(const Bytes& frame, bool ipv6) {
  using platform::Ipv4Address;
  using platform::Ipv6Address;
  const auto number = [&frame](std::size_t at) { return frame[at] << 8 | frame[at + 1]; };
  if (ipv6) {
    return {platform::IPv6Text(ArrayAt<Ipv6Address>(frame, 22)),
            platform::IPv6Text(ArrayAt<Ipv6Address>(frame, 38)),
            number(54),
            number(56),
            frame[21],
            number(14) >> 4 & 0xFF,
            0,
            (frame[15] & 0xF) << 16 | number(16)};
  }
  return {platform::IPv4Text(ArrayAt<Ipv4Address>(frame, 26)),
          platform::IPv4Text(ArrayAt<Ipv4Address>(frame, 30)),
          number(34),
          number(36),
          frame[22],
          frame[15],
          frame[20] >> 6 & 1,
          0};
}

// The next UDP datagram: IPv6 sends frames of its own.
Bytes NextUdp(Arrivals& far, bool ipv6) {
  Bytes frame;
  do {
    frame = far.Next();
  } while (frame.size() < 62 || frame[ipv6 ? 20 : 23] != IPPROTO_UDP);
  return frame;
}

TEST(UdpSocketSink, HonoursEveryHeaderFieldThatASocketCanSet) {
  InOwnNetwork([] {
    ASSERT_TRUE(
        Shell("echo 0 > /proc/sys/net/ipv6/conf/near/disable_ipv6 && "
              "ip -6 address add fd09::1/64 dev near nodad && "
              "ip neighbour add 10.9.0.2 lladdr 02:00:00:00:00:02 dev near && "
              "ip -6 neighbour add fd09::2 lladdr 02:00:00:00:00:02 dev near && "
              "ip -6 address add fe80::9/64 dev near nodad && "
              "ip -6 neighbour add fe80::2 lladdr 02:00:00:00:00:02 dev near && "
              "ip address add 10.9.0.7/24 dev near"));
    const struct {
      Headers sent;
      bool with_source;
      const char* interface;
    } cases[] = {
        {{"10.9.0.7", "10.9.0.2", 4001, 5004, 17, 0xB8, 0, 0}, true, ""},
        {{"10.9.0.1", "10.9.0.2", 4002, 5004, 255, 0, 1, 0}, false, ""},
        {{"10.9.0.1", "239.1.2.3", 4003, 5005, 0, 0x03, 0, 0}, false, "near"},
        {{"10.9.0.7", "239.1.2.3", 4004, 5005, 9, 0, 1, 0}, true, "near"},
        {{"10.9.0.1", "255.255.255.255", 4005, 5005, 3, 0, 0, 0}, true, "near"},
        {{"fd09::1", "fd09::2", 4001, 5004, 17, 0xB8, 0, 0}, true, ""},
        {{"fd09::1", "ff15::1", 4002, 5004, 0, 0xFF, 0, 0x7ABCD}, false, "near"},
        {{"fd09::1", "ff15::1", 4003, 5004, 9, 0, 1, 0}, true, "near"},
        {{"fe80::9", "fe80::2", 4004, 5004, 9, 0, 0, 0}, true, "near"},  // of a link
    };
    Arrivals far("far");
    const platform::DeadlineWaiter waiter;
    const Bytes frame = Frame(0xAB);
    for (const auto& c : cases) {
      auto settings =
          To(c.sent.destination.c_str(), static_cast<std::uint16_t>(c.sent.destination_port));
      UdpSocketSettings& socket = settings.socket;
      const bool ipv6 = socket.destination.index() == 1;
      socket.source_port = static_cast<std::uint16_t>(c.sent.source_port);
      if (c.with_source) {
        socket.source = Address(c.sent.source.c_str());
      }
      socket.interface = c.interface;
      socket.hop_limit = static_cast<std::uint8_t>(c.sent.hop_limit);
      socket.traffic_class = static_cast<std::uint8_t>(c.sent.traffic_class);
      socket.flow_label = static_cast<std::uint32_t>(c.sent.flow_label);
      socket.dont_fragment = c.sent.dont_fragment != 0;
      const auto sink = Open(settings);
      ASSERT_NE(sink, nullptr) << c.sent.destination;
      const OutgoingFrame outgoing{frame, {}, 0};
      EXPECT_EQ(sink->Send({&outgoing, 1}, waiter).sent, 1U);
      const Bytes arrived = NextUdp(far, ipv6);
      Headers headers = HeadersOf(arrived, ipv6);
      headers.dont_fragment |= ipv6 ? c.sent.dont_fragment : 0;  // there is no such bit
      EXPECT_EQ(headers, c.sent) << headers.source << " " << headers.source_port << " "
                                 << headers.hop_limit << " " << headers.traffic_class << " "
                                 << headers.dont_fragment << " " << headers.flow_label;
      EXPECT_EQ(Bytes(arrived.end() - 100, arrived.end()), Bytes(100, 0xAB));
      EXPECT_EQ(arrived.size(), ipv6 ? 162U : 142U);
    }
  });
}

TEST(UdpSocketSink, EveryTaggedDatagramGetsAStampFromWithinItsCallWithoutAnyRight) {
  InOwnNetwork([] {
    ASSERT_TRUE(Shell("ip neighbour add 10.9.0.2 lladdr 02:00:00:00:00:02 dev near"));
    const Receiver receiver;
    platform::GiveUpCapabilities();
    const auto loopback = Open(To("127.0.0.1", receiver.Port(), true));
    SendTagged(*loopback, Frame(1), 10'000, 2);
    EXPECT_EQ(receiver.Next(), Bytes(100, 1));
    const auto adapter = Open(To("10.9.0.2", 5004, true));
    SendTagged(*adapter, Frame(1), 10'000, 1);
  });
}

TEST(UdpSocketSink, AReceiverThatIsNotThereIsCountedAndEndsNothing) {
  InOwnNetwork([] {
    const std::uint16_t nobody = Receiver().Port();
    const Bytes frame = Frame(1);
    const platform::DeadlineWaiter waiter;
    for (const bool stamps : {false, true}) {
      const auto sink = Open(To("127.0.0.1", nobody, stamps));
      const std::vector<OutgoingFrame> burst(20, OutgoingFrame{frame, {}, 0});
      for (int i = 0; i < 20; ++i) {
        const auto result = sink->Send(burst, waiter);
        EXPECT_EQ(result.sent, burst.size());
        EXPECT_EQ(result.error, 0);
      }
      std::array<Departure, 1> none;
      EXPECT_EQ(sink->ReadDepartures(none), 0U);
      EXPECT_GT(sink->IcmpErrors(), 0U);
      EXPECT_LE(sink->IcmpErrors(), 400U);
      EXPECT_EQ(sink->Retries(), 0U);
    }
  });
}

TEST(UdpSocketSink, WaitsForAFullQueueAndReportsAsSentWhatWasSent) {
  InOwnNetwork([] {
    // 100 frames of 1,000 bytes take some 50 ms, three of them fit the queue.
    ASSERT_TRUE(Shell("tc qdisc add dev lo root tbf rate 16mbit burst 1500 limit 3200"));
    const Receiver receiver;
    const auto sink = Open(To("127.0.0.1", receiver.Port()));
    std::vector<Bytes> frames;
    std::vector<OutgoingFrame> burst;
    for (std::uint8_t i = 0; i < 50; ++i) {
      frames.push_back(Frame(i, 958));
    }
    for (const Bytes& frame : frames) {
      burst.push_back({frame, {}, 0});
    }
    platform::DeadlineWaiter waiter;
    EXPECT_EQ(sink->Send(burst, waiter).sent, burst.size());
    EXPECT_GT(sink->Retries(), 0U);
    for (std::uint8_t i = 0; i < 50; ++i) {
      ASSERT_EQ(receiver.Next(), Bytes(958, i));
    }
    ASSERT_TRUE(Shell("tc qdisc replace dev lo root tbf rate 8kbit burst 1500 limit 3200"));
    waiter.GiveUpAt(waiter.Now() + std::chrono::milliseconds(20));
    const auto result = sink->Send(burst, waiter);
    EXPECT_LT(result.sent, burst.size());
    EXPECT_EQ(result.error, ECANCELED);
    EXPECT_FALSE(result.of_frame);
    ASSERT_TRUE(Shell("tc qdisc replace dev lo root tbf rate 1gbit burst 100k limit 100k"));
  });
}

// The kernel has numbered a datagram by the time that the queue has no room for it.
TEST(UdpSocketSink, AFullQueueLeavesTheTagsInStep) {
  InOwnNetwork([] {
    ASSERT_TRUE(Shell("tc qdisc add dev lo root tbf rate 16mbit burst 1500 limit 3200"));
    const Receiver receiver;
    const auto sink = Open(To("127.0.0.1", receiver.Port(), true));
    const Bytes frame = Frame(1, 958);
    std::vector<OutgoingFrame> burst;
    for (std::uint32_t tag = 1; tag <= 50; ++tag) {
      burst.push_back({frame, {}, tag});
    }
    const platform::DeadlineWaiter waiter;
    ASSERT_EQ(sink->Send(burst, waiter).sent, burst.size());
    ASSERT_GT(sink->Retries(), 0U);
    ASSERT_TRUE(Shell("tc qdisc change dev lo root tbf rate 1gbit burst 100k limit 100k"));
    const auto latest = waiter.Now() + std::chrono::minutes(1);
    for (std::uint32_t tag = 1000, right = 0; right < 20; ++tag) {
      const OutgoingFrame single{frame, {}, tag};
      const auto before = waiter.Now();
      ASSERT_LT(before, latest) << "no stamps any more";
      ASSERT_EQ(sink->Send({&single, 1}, waiter).sent, 1U);
      const auto after = waiter.Now();
      std::array<Departure, 64> departures;
      const std::size_t count = sink->ReadDepartures(departures);
      for (std::size_t i = 0; i < count; ++i) {
        if (departures[i].tag > burst.size()) {
          EXPECT_EQ(departures[i].tag, tag);
          EXPECT_GE(departures[i].time, before - std::chrono::microseconds(1));
          EXPECT_LE(departures[i].time, after + std::chrono::microseconds(1));
          ++right;
        }
      }
    }
  });
}

TEST(UdpSocketSink, FramesThatCannotBeSentAreTheirOwnFault) {
  InOwnNetwork([] {
    ASSERT_TRUE(Shell("ip neighbour add 10.9.0.2 lladdr 02:00:00:00:00:02 dev near"));
    const Bytes good = Frame(1);
    const struct {
      Bytes frame;
      bool dont_fragment;
      int error;
    } cases[] = {
        {Frame(2, 65'508), false, EMSGSIZE},  // than a datagram can be
        {Frame(2, 1'473), true, EMSGSIZE},    // than the adapter's MTU of 1500 allows
        {Frame(2, 1'473), false, 0},         {Bytes(kOffset - 1), false, EINVAL},
        {Bytes(kOffset), false, 0},
    };
    const platform::DeadlineWaiter waiter;
    for (const auto& c : cases) {
      auto settings = To("10.9.0.2", 5004);
      settings.socket.dont_fragment = c.dont_fragment;
      const auto sink = Open(settings);
      const OutgoingFrame burst[] = {{good, {}, 0}, {c.frame, {}, 0}};
      const auto result = sink->Send(burst, waiter);
      EXPECT_EQ(result.sent, c.error == 0 ? 2U : 1U);
      EXPECT_EQ(result.error, c.error);
      EXPECT_EQ(result.of_frame, c.error != 0);
      EXPECT_EQ(sink->IcmpErrors(), 0U);
    }
  });
}

TEST(UdpSocketSink, SharesItsSourcePortButNotWithItsReceiver) {
  InOwnNetwork([] {
    const Receiver receiver;
    auto settings = To("127.0.0.1", receiver.Port());
    settings.socket.share_source_port = true;
    settings.socket.source_port = 4000;
    const auto first = Open(settings);
    const auto second = Open(settings);
    const Bytes frame = Frame(1);
    const OutgoingFrame outgoing{frame, {}, 0};
    const platform::DeadlineWaiter waiter;
    for (const auto& sink : {first.get(), second.get()}) {
      EXPECT_EQ(sink->Send({&outgoing, 1}, waiter).sent, 1U);
      EXPECT_EQ(receiver.Next(), Bytes(100, 1));
    }
    settings.socket.source_port = receiver.Port();
    const auto to_itself = UdpSocketSink::Open(settings);
    EXPECT_EQ(to_itself.value, nullptr);
    EXPECT_EQ(to_itself.error, EADDRINUSE);
    EXPECT_EQ(to_itself.step, std::string_view("send from the destination's own address and port"));
  });
}

TEST(UdpSocketSink, TellsWhyItCannotBeOpened) {
  InOwnNetwork([] {
    ASSERT_TRUE(Shell("echo 1 > /proc/sys/net/ipv6/flowlabel_state_ranges"));
    const Receiver taken;
    const struct {
      const char* destination;
      std::uint16_t port;
      const char* source;
      std::uint16_t source_port;
      const char* interface;
      int hop_limit;
      std::uint32_t flow_label;
      int error;
      std::string_view step;
    } cases[] = {
        {"127.0.0.1", 0, "", 0, "", 1, 0, EINVAL, "send to port 0"},
        {"127.0.0.1", 9, "::1", 0, "", 1, 0, EAFNOSUPPORT,
         "use a source address of another kind than the destination's"},
        {"127.0.0.1", 9, "", 0, "nowhere", 1, 0, ENODEV, "find the adapter"},
        {"127.0.0.1", 9, "10.9.0.99", 0, "", 1, 0, EADDRNOTAVAIL,
         "use the source address and port"},
        {"127.0.0.1", 9, "127.0.0.1", taken.Port(), "", 1, 0, EADDRINUSE,
         "use the source address and port"},
        {"127.0.0.1", 9, "", 0, "", 0, 0, EINVAL, "set the time to live"},
        {"192.0.2.1", 9, "", 0, "", 1, 0, ENETUNREACH, "reach the destination"},
        {"::1", 9, "", 0, "", 1, 0x100000, EINVAL, "use a flow label of more than 20 bits"},
        {"::1", 9, "", 0, "", 1, 0x80000, ERANGE, "use the flow label"},
    };
    for (const auto& c : cases) {
      auto settings = To(c.destination, c.port);
      if (*c.source != '\0') {
        settings.socket.source = Address(c.source);
      }
      settings.socket.source_port = c.source_port;
      settings.socket.interface = c.interface;
      settings.socket.hop_limit = static_cast<std::uint8_t>(c.hop_limit);
      settings.socket.flow_label = c.flow_label;
      const auto opened = UdpSocketSink::Open(settings);
      EXPECT_EQ(opened.value, nullptr) << c.step;
      EXPECT_EQ(opened.error, c.error) << c.step;
      EXPECT_EQ(opened.step, c.step);
    }
  });
}

}  // namespace
}  // namespace ipplayout
