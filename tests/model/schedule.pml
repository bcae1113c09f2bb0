// SPDX-License-Identifier: MIT
/* One playout of the many, from a host that writes over the builder to the transmitter, with its
   removal at any moment: payload/data_buffer.cpp as a reader without waits uses it, payload/
   builder_pool.cpp and datagram_builder.cpp, transmit/frame_ring.cpp and schedule_transmitter.cpp,
   platform/request_stack.h and deadline_waiter.cpp, control/scheduled_playout.cpp.

   One step for each atomic operation; what one thread alone touches goes in one step with what comes
   before it. A datagram is a unit of data and one frame. Nothing is ever too early: what is in the
   schedule may leave. What blocked writers do is in ring.pml, and signals are in signal.pml: here
   they are one step. */
#ifndef DATA
#define DATA 2
#endif
#ifndef ROOM
#define ROOM 1 /* frames */
#endif
#define HALF ((ROOM + 1) / 2)

/* The ring of data. */
byte written;
bool reader_needs, terminated;

/* The ring of frames. */
byte filled, released;
bool awaits_room, awaits_frame;

/* Each stack has one node: its flag, and whether it is linked. The start has requested both. */
bool builder_requested = true, builder_linked = true, builder_signal = true;
bool stream_requested = true, stream_linked = true;

/* The waiter of the transmitter. */
bool changed; /* its word, since the look at it */
bool interrupted, transmitter_sleeps;

bool all_built, wants_removal, has_left, over, removed;

bool shared_mutex, takes_requests = true;
bool detach_mutex, has_leaving;
bool freed; /* the run is gone */

inline RequestBuilder() {
  atomic { was = builder_requested; builder_requested = true };
  if
  :: !was -> builder_linked = true; builder_signal = true
  :: else
  fi
}

inline RequestStream() {
  atomic { was = stream_requested; stream_requested = true };
  if
  :: !was ->
     stream_linked = true;
     interrupted = true;
#if FAULT != 3
     changed = true;
#endif
     transmitter_sleeps = false
  :: else
  fi
}

/* Of the playout: by writers. Where none are taken the mutex is let go of at once. */
inline RequestFrames() {
  atomic { !shared_mutex -> was = takes_requests; shared_mutex = was };
  if
  :: was -> RequestBuilder(); shared_mutex = false
  :: else
  fi
}

proctype Writer() {
  bool was;
  do
  :: written < DATA ->
     written++;
     if :: reader_needs -> RequestFrames() :: else fi
  :: written == DATA ->
     if
     :: true -> /* the source rests until all of it has left: no later call makes up for a lost one */
end_rest:
        released == DATA
     :: true
     fi;
     terminated = true;
     RequestFrames();
     break
  od
}

proctype Builder() {
  byte read, free;
  bool was, has_payload, is_done;
next:
  builder_signal = false;
  atomic { was = builder_linked; builder_linked = false };
  if
  :: !was ->
end_idle:
     builder_signal;
     goto next
  :: else
  fi;
  assert(!freed);
#if FAULT != 11
  builder_requested = false;
#endif
  if
  :: has_leaving ->
     atomic { !detach_mutex -> detach_mutex = true };
#if FAULT != 4
     atomic { was = builder_requested; builder_requested = true };
#else
     was = false; /* and later requests enter */
#endif
     atomic { if :: !was -> has_leaving = false :: else fi; detach_mutex = false };
     goto next
  :: else
  fi;
#if FAULT == 11
  builder_requested = false; /* behind the look at what it asks for */
#endif
  /* Build */
  if
  :: has_left ->
     if
     :: !over ->
        atomic { !shared_mutex -> takes_requests = false };
        over = true
     :: else
     fi;
     goto next
  :: else
  fi;
  if :: is_done -> goto next :: else fi;
  if
  :: has_payload
  :: else ->
     reader_needs = false;
     if
     :: written > read
     :: else ->
        if
        :: terminated
        :: else ->
           reader_needs = true;
           if
#if FAULT != 5
           :: written > read || terminated -> reader_needs = false
#endif
           :: else -> goto next
           fi
        fi
     fi;
     if
     :: atomic { written == read -> is_done = true };
        all_built = true;
        RequestStream();
        goto next
     :: atomic { else -> read++; has_payload = true }
     fi
  fi;
  atomic { free = ROOM - (filled - released) };
  if
  :: free >= 1
  :: else ->
     awaits_room = true;
     if
#if FAULT != 6
     :: ROOM - (filled - released) >= HALF -> awaits_room = false
#endif
     :: else -> goto next
     fi
  fi;
  assert(!freed);
#if FAULT != 1
  filled++;
  was = awaits_frame;
#else
  was = awaits_frame; /* before the counter moves */
  filled++;
#endif
  has_payload = false;
  if
  :: was ->
     atomic { was = awaits_frame; awaits_frame = false };
     if :: was -> RequestStream() :: else fi
  :: else
  fi;
  RequestBuilder(); /* its turn is over, and there may be more */
  goto next
}

#define FRESH 0
#define AWAITING 1
#define SCHEDULED 2
#define GONE 3

inline End() {
  stream_state = GONE;
  has_left = true;
  RequestBuilder()
}

inline Refresh() {
  if
  :: stream_state == AWAITING ->
     awaits_frame = true;
     if
#if FAULT != 7
     :: filled != taken -> atomic { awaits_frame = false; stream_state = SCHEDULED }
#endif
     :: else ->
        if
        :: !all_built
#if FAULT != 8
        :: all_built && filled != taken -> stream_state = SCHEDULED
        :: all_built && filled == taken ->
#else
        :: all_built ->
#endif
           assert(taken == DATA);
           End()
        fi
     fi
  :: else
  fi
}

proctype Transmitter() {
  byte taken, stream_state = FRESH;
  bool was;
next:
  atomic { was = stream_linked; stream_linked = false };
  if
  :: was ->
     atomic {
       assert(!freed);
       if :: stream_state == FRESH -> stream_state = AWAITING :: else fi
     };
#if FAULT != 9
     stream_requested = false;
#endif
     if
     :: !wants_removal -> if :: stream_state != GONE -> Refresh() :: else fi
     :: else ->
#if FAULT != 10
        atomic { was = stream_requested; stream_requested = true };
#else
        was = false; /* as if nobody could ask meanwhile */
#endif
        if
        :: !was ->
           if :: stream_state != GONE -> End() :: else fi;
           removed = true
        :: else
        fi
     fi;
#if FAULT == 9
     stream_requested = false; /* behind what it asked for */
#endif
  :: else
  fi;
  if
  :: stream_state == SCHEDULED -> /* Send */
     atomic {
       assert(!freed && taken < filled);
       taken++;
       if :: taken == filled -> stream_state = AWAITING :: else fi
     };
#if FAULT != 2
     released = taken;
     was = awaits_room;
#else
     was = awaits_room; /* before the counter moves */
     released = taken;
#endif
     if
     :: was && ROOM - (filled - released) >= HALF ->
        atomic { was = awaits_room; awaits_room = false };
        if :: was -> RequestBuilder() :: else fi
     :: else
     fi;
     if
     :: Refresh()
     :: End() /* refused */
     fi;
     goto next
  :: else
  fi;
  /* WaitUntilInterrupted */
  do
  :: changed = false;
     atomic { was = interrupted; interrupted = false };
     if
     :: was -> break
     :: else ->
        atomic { if :: !changed -> transmitter_sleeps = true :: else fi };
end_idle:
        !transmitter_sleeps
     fi
  od;
  goto next
}

active proctype Host() {
  bool was;
  atomic { run Builder(); run Transmitter(); run Writer() };
  if
  :: true -> over /* waits for the end, whatever happens */
  :: true         /* or stops at any moment */
  fi;
  atomic { !shared_mutex -> takes_requests = false };
  /* Detach */
  atomic { !detach_mutex -> detach_mutex = true };
  has_leaving = true;
  RequestBuilder();
  detach_mutex = false;
  atomic { !has_leaving && !detach_mutex };
  /* Remove */
  wants_removal = true;
  RequestStream();
  removed;
  freed = true;
  assert(!builder_linked && !stream_linked)
}

ltl a_stop_comes_to_its_end { <> freed }
