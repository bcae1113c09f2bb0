// What every packet socket that sends has in common.
#pragma once

namespace ipplayout {

// Frames go straight to the device, past its queueing discipline and past other capturing sockets.
// Where the kernel has no such option they take the ordinary way.
void BypassQueueingDiscipline(int descriptor);

}  // namespace ipplayout
