#include "driver/packet_socket.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

namespace ipplayout {

void BypassQueueingDiscipline(int descriptor) {
  const int on = 1;
  setsockopt(descriptor, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on);
}

}  // namespace ipplayout
