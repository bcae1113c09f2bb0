#include "protocol/pdu.h"

#include <gtest/gtest.h>

#include "protocol/packet.h"
#include "tests/support/bytes.h"

namespace ipplayout {
namespace {

std::string Hex(const PDU& pdu) {
  return ToHex({pdu.Data(), pdu.Length()});
}

TEST(PduTest, WritesBigEndianInPlace) {
  PDU pdu(8);
  pdu.WriteByte(0x7E, 0);
  pdu.WriteU16(0xABCD, 1);
  pdu.WriteU32(0x01020304, 4);
  EXPECT_EQ(Hex(pdu), "7e ab cd 00 01 02 03 04");
  const Bytes two = FromHex("f0 f1");
  pdu.WriteBytes(two.data(), 2, 6);
  pdu.WritePdu(PDU(two.data(), 2), 0);
  pdu.WritePdu(PDU(), 3);
  EXPECT_EQ(Hex(pdu), "f0 f1 cd 00 01 02 f0 f1");
}

TEST(PduTest, LengthensWithZerosAndCopiesDeep) {
  const Bytes bytes = FromHex("01 02 03");
  PDU pdu(bytes.data(), 3);
  PDU copy = pdu;
  copy.WriteByte(9, 0);
  copy.SetLength(2);
  copy.SetLength(4);
  EXPECT_EQ(Hex(copy), "09 02 00 00");
  EXPECT_EQ(Hex(pdu), "01 02 03");
  pdu = copy;
  EXPECT_EQ(Hex(pdu), "09 02 00 00");
  pdu.SetLength(0);
  EXPECT_EQ(pdu.Data(), nullptr);
  EXPECT_EQ(PDU(0).Data(), nullptr);
}

TEST(MacPacketTest, SeesTheFrameBehindItsEthernetHeader) {
  Bytes frame(60);
  frame[14] = 0x45;
  const MacPacket packet(3, frame.data(), 60, 5000);
  EXPECT_EQ(packet.PayloadLength(), 46);
  EXPECT_EQ(*packet.Payload(), 0x45);
  EXPECT_EQ(*packet.PayloadBegin(), 0x45);
  EXPECT_EQ(packet.ReceiveIndex(), 3U);
  EXPECT_EQ(packet.ReceiveTime(), 5000U);
  EXPECT_EQ(MacPacket(0, frame.data(), 0, 0).PayloadLength(), -14);
}

}  // namespace
}  // namespace ipplayout
