// SPDX-License-Identifier: MIT
// The user's wish to stop, as SIGINT, SIGTERM or SIGHUP bring it; one policy for every command.
#pragma once

#include <signal.h>

namespace ipplay {

// The first signal asks for an orderly stop: results are printed, files written. Signals within
// half a second of it belong to it, since timeout(1) and a closing terminal send two. One that
// comes later ends the process at once. A signal that was ignored when the process started, as
// nohup(1) arranges, stays ignored.
class StopSignals {
 public:
  // From here to the end of the process; only the first call has an effect. For the main thread,
  // before it starts others.
  static void Take();

  // 0, or the signal that brought the wish. Costs no more than reading a variable.
  static int Came();
  // Readable from the wish on; never to be read from.
  static int Fd();

  // In a child made by fork, for the program that it becomes: as before Take.
  static void Forget();

  // Threads that are started meanwhile get none of these signals, nor do children; what comes is
  // delivered afterwards.
  class HeldBack {
   public:
    HeldBack();
    HeldBack(const HeldBack&) = delete;
    HeldBack& operator=(const HeldBack&) = delete;
    ~HeldBack();

   private:
    sigset_t before_;
  };
};

}  // namespace ipplay
