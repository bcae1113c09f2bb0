// Linux keeps capabilities thread by thread, and a thread can only give up its own. The library's
// threads get theirs from the one that starts them, so they are asked by a signal.
#pragma once

namespace ipplay {

// Lets the calling thread, a new one, be asked.
void JoinWorkers();

// Every thread that has joined gives up all of its capabilities. Returns when they have, or are
// gone. Called by one thread at a time.
void DropWorkerCapabilities();

}  // namespace ipplay
