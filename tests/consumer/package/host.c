// SPDX-License-Identifier: MIT
// A host built on the installed package, as C and as C++: it links, runs and is refused what cannot
// be played. Exits with the line of the first expectation that does not hold.
#include <ipplayout/ipplayout.h>

#define EXPECT(condition)                     \
  do {                                        \
    if (!(condition)) return __LINE__ & 0xFF; \
  } while (0)

int main(void) {
  EXPECT(IsPlayoutComplete() == 1);
  EXPECT(GetIPStopEvent() == 0);
  EXPECT(InitIpPlayout() == 1);
  EXPECT(GetIPStopEvent() > 0);

  char text[] = "239.1.2.3";
  unsigned char address[4];
  EXPECT(GetIpAddressBytes(text, address) == 1);
  SetDestinationIP(address);
  EXPECT(GetDestinationIP()[0] == 239 && GetIPHeaderSettings()->DestinationIP[3] == 3);

  ParametricSettings parametric = {1, 0, 0, 0, 0, 0, 2.5F, 0, 3};
  SetParametricSettings(parametric);
  EXPECT(GetBurstMode() == 1 && GetJitterDistributionType() == 3);
  EXPECT(GetJitterPeriod() > 2.0F && GetJitterPeriod() < 3.0F);
  EXPECT(GetMaxIPMTU(1, 0) == 16128);

  SetIPBitRate(0.0);
  EXPECT(IPStart() == IPPLAYOUT_FAILED);
  IPStop();
  PlayoutStatistics statistics;
  EXPECT(GetPlayoutStatistics(&statistics) == 1 && statistics.DatagramsSent == 0);

  EXPECT(CleanupIpPlayout() == 1);
  EXPECT(GetIPStopEvent() == 0);
  return 0;
}
