// SPDX-License-Identifier: MIT
#include "host/measure/capture/frame_decoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "frame_builder.h"

namespace ipplay::measure {
namespace {

using testing::Bytes;
using testing::FromHex;

// A frame from hex digits, in which these words stand for whole headers. Sums by hand, carries
// folded in: the IPv4 header gives d934, so its checksum is 26cb; pseudo header and datagram give
// 0007 over IPv4, so fff8, and 6846 over IPv6, so 97b9.
Bytes Frame(std::string_view text) {
  constexpr std::pair<std::string_view, std::string_view> kWords[] = {
      {"ETH", "02000000000b02000000000a"},
      {"IP4", "4500002000004000401126cb0a0000010a000002"},
      {"ADDR4", "0a0000010a000002"},
      {"VIA6", "fd000000000000000000000000000001fd000000000000000000000000000099"},
      {"LAST6", "ff3e0000000000000000000080000001"},
      {"ADDR6", "fd000000000000000000000000000001ff3e0000000000000000000080000001"},
      {"UDP4", "1388138c000cfff861626364"},
      {"UDP6", "1388138c000c97b961626364"},
  };
  Bytes frame;
  while (!text.empty()) {
    std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    for (const auto& [name, hex] : kWords) {
      word = word == name ? hex : word;
    }
    const Bytes more = FromHex(word);
    frame.insert(frame.end(), more.begin(), more.end());
  }
  return frame;
}

FrameClass Decode(const Bytes& frame, DecodedFrame& decoded, LinkType link = LinkType::kEthernet) {
  return DecodeFrame(link, {frame, frame.size()}, true, decoded);
}

TEST(FrameDecoder, ReadsEveryEncapsulation) {
  const struct {
    const char* frame;
    const char* flow;
    LinkType link = LinkType::kEthernet;
  } cases[] = {
      {"ETH 0800 IP4 UDP4", "10.0.0.1:5000 10.0.0.2:5004 "},
      {"ETH 0800 IP4 UDP4 000000000000000000000000", "10.0.0.1:5000 10.0.0.2:5004 "},
      {"ETH 86dd 60000000000c1140 ADDR6 UDP6", "[fd00::1]:5000 [ff3e::8000:1]:5004 "},
      {"ETH 86dd 60000000001c0040 ADDR6 3c00050200000000 1100010400000000 UDP6",
       "[fd00::1]:5000 [ff3e::8000:1]:5004 "},
      {"ETH 8100a064 0800 IP4 UDP4", "10.0.0.1:5000 10.0.0.2:5004 100"},
      {"ETH 88a80001 81000fff 86dd 60000000000c1140 ADDR6 UDP6",
       "[fd00::1]:5000 [ff3e::8000:1]:5004 1.4095"},
      {"IP4 UDP4", "10.0.0.1:5000 10.0.0.2:5004 ", LinkType::kRawIp},
      {"00000001000602000000000a0000 0800 IP4 UDP4", "10.0.0.1:5000 10.0.0.2:5004 ",
       LinkType::kLinuxCooked},
      {"08000000000000020001000602000000000a0000 IP4 UDP4", "10.0.0.1:5000 10.0.0.2:5004 ",
       LinkType::kLinuxCooked2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.frame);
    const Bytes frame = Frame(c.frame);
    DecodedFrame decoded;
    ASSERT_EQ(Decode(frame, decoded, c.link), FrameClass::kUdp);
    const FlowKey& flow = decoded.flow;
    EXPECT_EQ(SourceText(flow) + " " + DestinationText(flow) + " " + VlanText(flow), c.flow);
    EXPECT_EQ(Bytes(decoded.payload.begin(), decoded.payload.end()), FromHex("61626364"));
    EXPECT_FALSE(decoded.bad_ip_checksum);
    EXPECT_EQ(decoded.udp_checksum, UdpChecksum::kGood);
  }
}

TEST(FrameDecoder, JudgesChecksums) {
  const struct {
    const char* frame;
    bool bad_ip;
    UdpChecksum udp;
  } cases[] = {
      {"ETH 0800 450000200000400040 1126cc ADDR4 UDP4", true, UdpChecksum::kGood},  // one too high
      {"ETH 0800 IP4 1388138c000cfff961626364", false, UdpChecksum::kBad},          // one too high
      {"ETH 0800 IP4 1388138c000cfff861626365", false, UdpChecksum::kBad},  // payload changed
      {"ETH 0800 IP4 1388138c000c000061626364", false, UdpChecksum::kAbsent},
      {"ETH 86dd 60000000000c1140 ADDR6 1388138c000c000061626364", false, UdpChecksum::kBad},
      // On its way over another node: types 0 and 4 say where to, the last one packed says nothing
      // that is understood.
      {"ETH 86dd 6000000000242b40 VIA6 1102000100000000 LAST6 UDP6", false, UdpChecksum::kGood},
      {"ETH 86dd 6000000000342b40 VIA6 1104040100000000 LAST6 "
       "fd000000000000000000000000000099 UDP6",
       false, UdpChecksum::kGood},
      {"ETH 86dd 6000000000242b40 ADDR6 1102040000000000 LAST6 UDP6", false, UdpChecksum::kGood},
      {"ETH 86dd 6000000000242b40 VIA6 1102030100000000 LAST6 UDP6", false,
       UdpChecksum::kUnchecked},
      {"ETH 86dd 60000000001c2b40 VIA6 1100000100000000 UDP6 0000000000000000", false,
       UdpChecksum::kUnchecked},
      // Odd length: the sum is ffa0.
      {"ETH 0800 4500001f00004000401126cc ADDR4 1388138c000b005f616263", false, UdpChecksum::kGood},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.frame);
    DecodedFrame decoded;
    ASSERT_EQ(Decode(Frame(c.frame), decoded), FrameClass::kUdp);
    EXPECT_EQ(decoded.bad_ip_checksum, c.bad_ip);
    EXPECT_EQ(decoded.udp_checksum, c.udp);
  }
}

TEST(FrameDecoder, RefusesWhatIsNoDatagram) {
  const struct {
    const char* name;
    const char* frame;
    FrameClass expected;
  } cases[] = {
      {"ARP", "ETH 08060001", FrameClass::kNotIp},
      {"three tags", "ETH 810000018100000281000003 0800 IP4 UDP4", FrameClass::kNotIp},
      {"TCP", "ETH 0800 450000200000400040060000 ADDR4 UDP4", FrameClass::kNotUdp},
      {"first fragment", "ETH 0800 450000200000200040110000 ADDR4 UDP4", FrameClass::kFragment},
      {"later fragment", "ETH 0800 450000200000000140110000 ADDR4 UDP4", FrameClass::kFragment},
      {"version 5", "ETH 0800 550000200000400040110000 ADDR4 UDP4", FrameClass::kBadIpHeader},
      {"header of 16 bytes", "ETH 0800 440000200000400040110000 ADDR4", FrameClass::kBadIpHeader},
      {"total below the header", "ETH 0800 450000130000400040110000 ADDR4 UDP4",
       FrameClass::kBadIpHeader},
      {"total beyond the frame", "ETH 0800 450000210000400040110000 ADDR4 UDP4",
       FrameClass::kBadIpHeader},
      {"UDP beyond the packet", "ETH 0800 IP4 1388138c000d000061626364", FrameClass::kBadUdpLength},
      {"UDP below its header", "ETH 0800 IP4 1388138c0007000061626364", FrameClass::kBadUdpLength},
      {"IPv6 fragment", "ETH 86dd 6000000000142c40 ADDR6 1100000000000001 UDP6",
       FrameClass::kFragment},
      {"extension beyond the packet", "ETH 86dd 6000000000140040 ADDR6 11ff000000000000 UDP6",
       FrameClass::kBadIpHeader},
  };
  for (const auto& c : cases) {
    DecodedFrame decoded;
    EXPECT_EQ(Decode(Frame(c.frame), decoded), c.expected) << c.name;
  }
}

TEST(FrameDecoder, ReadsNothingBehindWhatWasCaptured) {
  // Cut at every length, in memory of just that size, so that a sanitizer sees a read too far.
  for (const char* text : {"ETH 81000064 0800 IP4 UDP4", "ETH 86dd 60000000000c1140 ADDR6 UDP6"}) {
    const Bytes whole = Frame(text);
    for (std::size_t length = 0; length < whole.size(); ++length) {
      const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
      DecodedFrame decoded;
      const auto found = DecodeFrame(LinkType::kEthernet, {cut, whole.size()}, true, decoded);
      if (length + 4 < whole.size()) {
        EXPECT_EQ(found, FrameClass::kTruncated) << length;
        continue;
      }
      ASSERT_EQ(found, FrameClass::kUdp) << length;
      EXPECT_EQ(decoded.payload_length, 4U);
      EXPECT_EQ(decoded.payload.size(), 4 - (whole.size() - length));
      EXPECT_EQ(decoded.udp_checksum, UdpChecksum::kUnchecked);
    }
  }
}

}  // namespace
}  // namespace ipplay::measure
