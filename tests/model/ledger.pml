// SPDX-License-Identifier: MIT
/* The ledger of one playout, from the transmitter that adds records, some of which await a stamp, to
   the thread that writes them to a file, with its end at any moment: transmit/departure_ledger.cpp,
   ledger_file.cpp, control/scheduled_run.cpp.

   One step for each atomic operation; what one thread alone touches goes in one step with what comes
   before it. The wait of the thread has no time limit here: what wakes it is enough. Signals are in
   signal.pml: here they are one step. */
#ifndef FRAMES
#define FRAMES 4
#endif
#ifndef ROOM
#define ROOM 2
#endif
#define HALF ((ROOM + 1) / 2)
#define EMPTY 255

/* The ring, and which record is in each of its slots. */
byte settled, taken, left_out;
byte slots[ROOM] = EMPTY;
bool awaits_half, wanted;

bool stop_requested, removed, thread_ended;
byte next_written; /* the oldest record that is not in the file yet */

inline Settle(end) {
#if FAULT == 1
  was = awaits_half; /* before the counter moves */
  settled = end;
#else
  settled = end;
  was = awaits_half;
#endif
  if
  :: was && settled - taken >= HALF ->
     atomic { was = awaits_half; awaits_half = false };
     if :: was -> wanted = true :: else fi
  :: else
  fi
}

proctype Transmitter() {
  byte frame, added;
  bool was;
  do
  :: frame < FRAMES ->
     if
     :: true -> /* a frame leaves */
        frame++;
        if
#if FAULT != 2
        :: added - taken == ROOM -> left_out++
#endif
        :: else ->
           assert(added - taken < ROOM);
#if FAULT == 3
           added++;
           Settle(added);
           slots[(added - 1) % ROOM] = added - 1 /* behind its publication */
#else
           atomic { slots[added % ROOM] = added; added++ };
           if
           :: settled == added - 1 -> Settle(added) /* awaits no stamp */
           :: true
           fi
#endif
        fi
     :: settled < added -> Settle(added) /* a stamp comes, or is given up */
     fi
  :: true -> break /* removed at any moment */
  od;
#if FAULT != 4
  if :: settled < added -> Settle(added) :: else fi;
#endif
  assert(added + left_out == frame);
  d_step { frame = added; removed = true };
  /* In the end each record that was added is in the file. */
  thread_ended;
  assert(next_written == frame)
}

inline Drain() {
  do
  :: settled == taken -> break
  :: else ->
#if FAULT == 5
     taken++;
     assert(slots[(taken - 1) % ROOM] == next_written) /* after it was given back */
#else
     assert(slots[taken % ROOM] == next_written);
     taken++
#endif
     ; next_written++
  od
}

active proctype File() {
  do
#if FAULT == 6
  :: stop_requested -> break /* looked at before the signal is reset */
  :: !stop_requested -> wanted = false;
#else
  :: wanted = false;
#endif
#if FAULT == 7
     if
     :: settled - taken >= HALF -> skip
     :: else ->
        awaits_half = true; /* behind the look at the counter */
        wanted
     fi;
#else
     awaits_half = true;
#if FAULT != 6
     if :: stop_requested -> break :: else fi;
#endif
     if
     :: settled - taken >= HALF
     :: else ->
end_idle:
        wanted
     fi;
#endif
     awaits_half = false;
     Drain()
  od;
#if FAULT != 8
  Drain();
#endif
  thread_ended = true
}

active proctype Host() {
  run Transmitter();
  removed;
  if
  :: true -> settled - taken < HALF /* what was asked for is taken without a stop, too */
  :: true
  fi;
  stop_requested = true;
  wanted = true;
  thread_ended
}

ltl a_stop_comes_to_its_end { <> thread_ended }
