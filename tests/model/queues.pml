// SPDX-License-Identifier: MIT
/* Batches on their way from the pump to the transmitter, and the end of a run: transmit/
   batch_hand_over.cpp, pcap_rt_interface.cpp and packet_transmitter.cpp, payload/data_pump.cpp, and
   the stop of control/playout.cpp, which may give up what the adapter does not take. MOST batches may be handed over and not passed. */
#define SIGNALS 3
#define READY 0
#define FREED 1
#define FINISHED 2
#include "signal.pml"

#ifndef MOST
#define MOST 1
#endif
#define BATCHES 3
#define NOBODY_WAITS 255

byte handed, passed, released, sent;
byte awaited_passed = NOBODY_WAITS, awaited_released = NOBODY_WAITS;
byte dropped;
bool woken, abandoned, finished, failed, given_up;   /* of the interface */
bool pump_stop, transmitter_stop, complete, transmitter_ended;
bool paused, pump_rests;                   /* the pump sleeps until it is resumed */
bool awaits_end;                           /* the host ends nothing, and resumes what it has paused */

inline Wake() { woken = true; Set(READY) }

inline WaitUntil(counter, awaited, count) {
  do
  :: counter >= count || abandoned -> break
  :: else ->
     Reset(FREED);
     awaited = count;
     if
     :: counter < count && !abandoned -> Wait(FREED)
     :: else
     fi;
     awaited = NOBODY_WAITS
  od
}

inline Advance(counter, awaited, count) {
  counter = count;
  look = awaited;
  if :: count >= look -> Set(FREED) :: else fi
}

/* All under the pause mutex, in one step: nobody can come between. */
inline WaitWhilePaused() {
  if
  :: atomic { paused && !pump_stop -> pump_rests = true }; !pump_rests
  :: atomic { else }
  fi
}

inline Pause(on) {
#if FAULT != 3
  atomic { paused = on; if :: on :: else -> pump_rests = false fi }
#else
  paused = on
#endif
}

proctype Pump() {
  byte look, left = BATCHES;
  bool stopping;
  do
  :: stopping = pump_stop;
     if :: !stopping -> WaitWhilePaused(); stopping = pump_stop :: else fi;
     if :: true -> break :: left > 0 fi; /* the data may end at any time */
     if :: failed -> goto ended :: else fi;
     if
     :: handed - passed >= MOST -> WaitUntil(passed, awaited_passed, handed - MOST / 2)
     :: else
     fi;
     if
     :: abandoned -> dropped++ /* too late; a failure is the next frame's result */
     :: else ->
        handed++;
#if FAULT != 4
        Set(READY)
#endif
     fi;
     left--;
     if :: stopping -> break :: else fi
  od;
  WaitUntil(released, awaited_released, handed); /* FlushLastQueue */
  finished = true;
  Wake();
ended:
  complete = true;
  Wake()
}

proctype Transmitter() {
  byte look;
  bool was_woken;
  do
  :: transmitter_stop || finished -> break
  :: else ->
     do /* WaitForQueue */
     :: handed != released -> break
     :: else ->
        atomic { was_woken = woken; woken = false };
        if :: was_woken -> break :: else fi;
        Reset(READY);
#if FAULT != 6
        if :: handed == released && !woken -> Wait(READY) :: else fi
#else
        Wait(READY) /* without a second look */
#endif
     od;
     if
     :: handed == released
     :: else ->
        if
        :: Advance(passed, awaited_passed, released + 1) /* frames are spaced */
        :: true
        fi;
        if
        :: !finished -> /* the adapter refuses the batch, or a stop gives it up */
           if :: failed = true :: pump_stop -> given_up = true fi;
           finished = true;
#if FAULT != 7
           abandoned = true;
           Set(FREED);
#endif
           break
        :: true ->
           sent++;
           Advance(released, awaited_released, released + 1);
           if :: passed != released -> Advance(passed, awaited_passed, released) :: else fi
        fi
     fi
  od;
  Set(FINISHED);
  transmitter_ended = true
}

/* A host thread that pauses and resumes, and one that ends the run at any moment or waits for it. */
proctype Pauser() {
  if :: Pause(true) :: true fi;
  if :: Pause(false) :: !awaits_end fi
}

active proctype Host() {
  byte look;
  if :: awaits_end = true :: true fi;
  atomic { run Pauser(); run Transmitter(); run Pump() };
  if :: awaits_end -> complete :: else fi;
#if FAULT != 5
  pump_stop = true;
  Pause(false);
#else
  Pause(false); /* before the stop is asked for */
  pump_stop = true;
#endif
  complete;
  transmitter_stop = true;
  Wake();
  Wait(FINISHED);
  transmitter_ended;
  assert(failed || given_up || handed == sent);
  assert(abandoned || dropped == 0)
}

ltl the_run_ends { <> transmitter_ended }
