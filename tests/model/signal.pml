// SPDX-License-Identifier: MIT
/* platform/signal.cpp and the futex below it, one step for each atomic operation of the code.
   SIGNALS is their number. A process that uses them declares `byte look`.

   The spin before falling asleep is not a step of its own: it only looks at the state, and a look
   that comes later, in any interleaving, is the same. */
#define CLEAR 0
#define SET 1
#define CLEAR_WITH_SLEEPER 2

byte state[SIGNALS];
bool asleep[SIGNALS];  /* in the kernel, on that signal's word */

inline Set(s) {
  atomic { look = state[s]; state[s] = SET };
  if
  :: look == CLEAR_WITH_SLEEPER ->
#if FAULT != 1
     asleep[s] = false
#else
     skip
#endif
  :: else
  fi
}

inline Reset(s) {
  atomic { if :: state[s] == SET -> state[s] = CLEAR :: else fi }
}

inline Wait(s) {
  do
  :: look = state[s];
     if
     :: look == SET -> break
     :: look == CLEAR ->
        atomic { if :: state[s] == CLEAR -> state[s] = CLEAR_WITH_SLEEPER :: else look = SET fi }
     :: else
     fi;
     if
     :: look == SET /* somebody was faster: look again */
     :: else ->
#if FAULT != 2
        atomic { if :: state[s] == CLEAR_WITH_SLEEPER -> asleep[s] = true :: else fi };
#else
        asleep[s] = true; /* a sleep that does not compare the word */
#endif
        !asleep[s]
     fi
  od
}
