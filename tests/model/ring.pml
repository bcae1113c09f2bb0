// SPDX-License-Identifier: MIT
/* The ring between host threads and the pump: payload/data_buffer.cpp. Two writers, a reader, and a
   host that ends the data after the writers or at any moment; then the next run.

   One step for each atomic operation. What only the holder of the mutex touches goes in one step
   with taking the mutex or leaving it, since nobody can come between. Sizes are in units that stand
   for any number of bytes. */
#define SIGNALS 1
#define DATA_READY 0
#include "signal.pml"

#define CAPACITY 3 /* whatever a writer waits for, a payload is there by then, as in the real ring */
#define PAYLOAD 2
#define THRESHOLD 2
#define WRITERS 2
#ifndef WRITES
#define WRITES 1
#endif
#ifndef RUNS
#define RUNS 1
#endif

byte written, read;            /* totals since the last Reset */
byte reader_needs, writer_needs;
bool started, terminated;
byte endings;                  /* run_endings_ */
bool reader_gone = true, reading, stop;
bool mutex, waits[WRITERS];    /* the writers' mutex, and who sleeps on its condition */
byte writers_left = WRITERS;

inline NotifyAll() { waits[0] = false; waits[1] = false }

/* readable := started and (enough or terminated); its loads may come apart. */
inline IsReadable(wanted) {
  readable = started;
  if
  :: !readable
  :: else ->
     held = written;
     held = held - read; /* below 0 where another writer came between: as good as enough */
     if
     :: held >= wanted || held < 0
     :: else -> readable = terminated
     fi
  fi
}

inline EndRun() {
  atomic { !mutex -> mutex = true; endings++; reader_gone = true; writer_needs = 0 };
#if FAULT != 3
  atomic { NotifyAll(); mutex = false }
#else
  mutex = false
#endif
}

proctype Writer(byte me) {
  byte look, left = WRITES, size, seen_endings, least;
  short held;
  bool readable, refused;
  do
  :: left == 0 || refused -> break
  :: else ->
     atomic { if :: size = 1 :: size = 2 fi; !mutex -> mutex = true; seen_endings = endings };
     do
     :: atomic { CAPACITY - (written - read) >= size -> break }
     :: atomic { else -> if :: reader_gone -> refused = true; break :: else fi };
        atomic {
          least = writer_needs;
          if :: least == 0 || size < least -> writer_needs = size :: else fi
        };
        if
#if FAULT != 4
        :: CAPACITY - (written - read) >= size
#endif
        :: else -> atomic { waits[me] = true; mutex = false }; atomic { !waits[me] && !mutex -> mutex = true }
        fi;
        if :: endings != seen_endings -> refused = true; break :: else fi
     od;
     if
     :: refused -> mutex = false
     :: else ->
        assert(written - read + size <= CAPACITY);
        written = written + size;
        atomic { if :: !started && written - read >= THRESHOLD -> started = true :: else fi; mutex = false };
        least = reader_needs;
        if
        :: least == 0
        :: else -> IsReadable(least); if :: readable -> Set(DATA_READY) :: else fi
        fi;
        left--
     fi
  od;
  writers_left--
}

proctype Reader() {
  byte look, wanted, needs;
  short held;
  bool readable;
  do
  :: stop -> break
  :: true ->
     wanted = PAYLOAD;
     do
     :: IsReadable(wanted);
        if :: readable -> break :: else fi;
        Reset(DATA_READY);
        reader_needs = wanted;
#if FAULT != 5
        IsReadable(wanted);
#endif
        if :: readable :: else -> Wait(DATA_READY) fi;
        reader_needs = 0
     od;
     held = written - read;
     if :: held < wanted -> wanted = held :: else fi;
     if :: wanted == 0 -> break :: else fi;
     read = read + wanted;
     needs = writer_needs; /* WakeWriters */
     if
     :: needs != 0 && CAPACITY - (written - read) >= needs ->
#if FAULT != 6
        atomic { !mutex -> writer_needs = 0 };
#else
        writer_needs = 0; /* without the mutex: a writer may be on its way to sleep */
#endif
        atomic { NotifyAll() }
     :: else
     fi
  od;
  EndRun();
  reading = false
}

active proctype Host() {
  byte look, runs = RUNS;
  atomic { run Writer(0); run Writer(1) };
  do
  :: runs == 0 -> break
  :: else ->
     atomic { !mutex -> reader_gone = false; reading = true; stop = false; run Reader() };
     if
     :: true -> writers_left == 0 /* the data ends */
     :: true -> stop = true       /* or is cut off: a stop or a lost adapter */
     fi;
     terminated = true;
     started = true;
#if FAULT != 7
     Set(DATA_READY);
#endif
     !reading;
     atomic { !mutex -> mutex = true; written = 0 }; /* Reset */
     read = 0;
     terminated = false;
     started = false;
     Reset(DATA_READY);
     mutex = false;
     EndRun();
     runs--
  od;
  writers_left == 0
}

ltl writers_are_released { [] (waits[0] -> <> !waits[0]) && [] (waits[1] -> <> !waits[1]) }
