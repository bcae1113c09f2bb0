// SPDX-License-Identifier: MIT
// Any number of playouts in one process, each with settings, a clock and a destination of its own.
//
// Beside ipplayout.h, whose one playout is process-wide and paced by a bit rate alone. A host
// calls, for each playout: IpPlayoutOpen; IpPlayoutDefaults and IpPlayoutConfigure; where the rate
// varies, IpPlayoutMark; IpPlayoutStart; IpPlayoutWrite until its data ends; IpPlayoutEnd;
// IpPlayoutWait; IpPlayoutStop. Then again from IpPlayoutConfigure or IpPlayoutStart on, or
// IpPlayoutClose.
//
// Conventions, besides those of ipplayout.h
// - Results: IPPLAYOUT_DONE (0) or one of the negative codes below. IpPlayoutError then has a
//   sentence with the field, the value and what is allowed.
// - Times: nanoseconds. Points in time are on CLOCK_MONOTONIC, see IpPlayoutNow; those of a playout
//   count from its start. Offsets: bytes of the stream as it is written, from 0.
// - Threads: any function on any thread. One thread at a time writes to a playout and sets its
//   marks; everything else may run beside it, also a stop or a close: they release it.
// - Frames are built ahead: what a call changes shows with the next datagram that is built, which
//   leaves up to some 50 ms later.
// - A playout that fails, stalls or is stopped does not hold up another one.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "ipplayout/records.h"

// Results.
enum {
  IPPLAYOUT_DONE = 0,
  IPPLAYOUT_BAD_PLAYOUT = -1,      // not open
  IPPLAYOUT_BAD_VALUE = -2,        // a value that is not allowed
  IPPLAYOUT_BAD_STATE = -3,        // not now: running, not running, not configured
  IPPLAYOUT_BAD_DESTINATION = -4,  // cannot be opened, or took a frame no more
  IPPLAYOUT_NO_RESOURCES = -5,     // memory, descriptors or threads have run out
  IPPLAYOUT_ENDED = -6,            // stopped, ended or closed meanwhile
  IPPLAYOUT_NOT_YET = -7,          // the time given is over
};

// Where frames go.
enum {
  IPPLAYOUT_TO_ADAPTER = 0,  // Destination is an interface; needs the right to send raw frames
  // Destination is the path of a pcapng file. Time is virtual: nothing waits, and the file holds
  // the frames with the times at which they would leave. Playouts with the same path share it.
  IPPLAYOUT_TO_FILE = 1,
  // A UDP socket, for receivers on this machine too, and without any right. Destination is the
  // interface for multicast, or empty. Header fields that a socket cannot set are refused.
  IPPLAYOUT_TO_SOCKET = 2,
};

// What happens to frames whose time has passed by more than LateAfterNs: after a stall of the
// source or of the machine.
enum {
  IPPLAYOUT_LATE_BOUNDED = 0,   // sent, at no more than CatchUp times the rate, until on time again
  IPPLAYOUT_LATE_CATCH_UP = 1,  // sent at once, back to back
  IPPLAYOUT_LATE_SHIFT = 2,     // sent, and the schedule moves: what follows is as much later
  IPPLAYOUT_LATE_DROP = 3,      // left out and counted
};

// What happens when the destination refuses a frame, as an adapter does whose link is down.
enum {
  IPPLAYOUT_REFUSED_FAILS = 0,   // the playout ends as failed
  IPPLAYOUT_REFUSED_COUNTS = 1,  // the frame is counted as not sent, the playout goes on in time
};

enum {
  IPPLAYOUT_PRECISE = 0,     // waits are spun through at their end: within microseconds
  IPPLAYOUT_ECONOMICAL = 1,  // left to the kernel: within some 200 us, at a fraction of the work
};

// A playout. Never followed by the host; not used again once it is closed, and then refused.
typedef struct IpPlayout IpPlayout;

// What is done to datagrams at random, besides ErrorInsertion. A chance is 0 to 1 and holds for
// each datagram by itself; 0 by default. A datagram that is lost suffers nothing else.
typedef struct IpPlayoutFaults {
  double Lose;
  // Losses that come in bursts (Gilbert and Elliott): before each datagram the stream turns bad
  // with the chance TurnsBad, or good again with TurnsGood. While it is bad, LoseWhileBad holds for
  // Lose.
  double TurnsBad;
  double TurnsGood;  // above 0 with TurnsBad
  double LoseWhileBad;
  double Delay;  // RTP only
  double Duplicate;
  double Corrupt;
  double IpChecksum;  // IPv4 only
  double UdpChecksum;
  uint32_t DelayDistance;   // behind so many later datagrams: 1, the default, to 1,000,000
  uint32_t CorruptBits;     // bits of the payload that are flipped: 1, the default, to 1,000
  uint32_t DuplicateCount;  // so many of every DuplicateRange datagrams, placed as RandomizeErrors
  uint32_t DuplicateRange;  // says; 0: none
  uint32_t CorruptCount;
  uint32_t CorruptRange;
  uint32_t ClosesHoles;  // 1: what follows a lost datagram leaves earlier, so that no hole stays
  uint32_t Reserved;
} IpPlayoutFaults;

// Filled by IpPlayoutDefaults, then changed by the host.
typedef struct IpPlayoutSettings {
  uint32_t Size;          // of this record, as the host was compiled with; set by IpPlayoutDefaults
  uint32_t To;            // IPPLAYOUT_TO_...
  char Destination[256];  // as To says

  // As for ipplayout.h. Not read: ConfigurationName, DeviceName, DeviceIndex. Random sequence
  // number and SSRC are drawn from Seed, the SSRC of 32 bits.
  IPPlayParams Params;
  ErrorInsertion Errors;
  ParametricSettings Parametric;  // jitter moves a frame away from its place, see IpPlayoutMark
  TTSSettings Tts;
  uint32_t TSPacketSize;  // 188, 192, 204, or 0 for a stream without packets

  // Of the frames of one copy, in megabits per second, or 0: then marks say when data leaves.
  double BitRate;
  uint32_t RingBytes;   // what is written ahead at most: 65,536 to 2^30; 1 MiB by default
  uint32_t StartBytes;  // written before the first datagram is built, 0 to RingBytes; a quarter

  uint32_t Late;          // IPPLAYOUT_LATE_...
  uint32_t Refused;       // IPPLAYOUT_REFUSED_...
  double CatchUp;         // above 1, to 1,000; 1.25 by default
  int64_t LateAfterNs;    // 0 to 10^9; a millisecond by default
  uint32_t Precision;     // IPPLAYOUT_PRECISE or ..._ECONOMICAL, of what shares its destination
  uint32_t Stamps;        // 1: the kernel's time of departure, of up to 20,000 frames a second
  uint32_t LedgerFrames;  // records that are kept until they are read; 0 by default: no ledger

  // Forward error correction (SMPTE ST 2022-1), RTP only: FecColumns (L) 1 to 20 by FecRows (D) 4
  // to 20, at most 100 in all; 0 columns: none. FEC leaves to the destination port + 2 for columns
  // and + 4 for rows, with the headers of the stream but for payload type, SSRC and sequence
  // number, in datagrams that are 16 bytes longer. It is made from what was meant to leave: what is
  // lost on purpose can be repaired. With copies it needs CopiesShareTime, and ports that FEC of
  // other copies does not take.
  uint32_t FecColumns;
  uint32_t FecRows;
  uint32_t FecProtectsRows;  // 1: rows too
  uint32_t FecStaggered;     // 1: columns begin one after the other, not all with a matrix
  uint32_t FecPayloadType;   // 0 to 127; 96 by default
  uint32_t FecSSRC;
  ErrorInsertion FecErrors;  // of the FEC datagrams, columns and rows counted apart

  uint32_t FirstRtpTimestamp;  // at the time 0 of the playout
  uint32_t CopiesShareTime;    // 1: all copies of a datagram carry the RTP time of the first one
  uint64_t Seed;               // of everything random; 0: the system draws it, see IpPlayoutSeed
  IpPlayoutFaults Faults;
} IpPlayoutSettings;

// When frames left. Departures are taken when the frame is given to the destination; lateness is
// the time by which that was after the frame's place in the schedule (0 when before it).
typedef struct IpPlayoutTiming {
  uint64_t OnTime;        // frames that left at most LateAfterNs late
  uint64_t Late;          // frames that left later
  uint64_t LeftOut;       // not sent because their time had passed (IPPLAYOUT_LATE_DROP)
  uint64_t NotSent;       // refused by the destination
  uint64_t Discarded;     // built and not sent because the playout was stopped
  int64_t LatenessP50Ns;  // -1 while no frame has left, as all of the following times
  int64_t LatenessP99Ns;
  int64_t LatenessP999Ns;
  int64_t LatenessMaxNs;
  // CLOCK_MONOTONIC; of a file its virtual clock. FEC does not count for these three.
  int64_t FirstDepartureNs;
  int64_t LastDepartureNs;
  int64_t LongestGapNs;  // between two departures
  int64_t ShiftNs;       // by which the schedule has moved: pauses, and IPPLAYOUT_LATE_SHIFT
  uint64_t DryTimes;     // how often the next frame was not there when it was due
  int64_t DryNs;         // for how long in all
  uint64_t Retries;      // how often a full queue of the destination was waited for
  uint64_t Stamps;       // frames that the kernel stamped; with 0 the next four are -1
  int64_t StampP50Ns;    // time of the stamp behind the frame's place in the schedule
  int64_t StampP99Ns;
  int64_t StampP999Ns;
  int64_t StampMaxNs;
  uint64_t LedgerLeftOut;  // records that a full ledger, or its file, had no room for
  char Sender[32];         // "packet socket", "AF_XDP", "UDP socket" or "capture file"
} IpPlayoutTiming;

// What was done to a datagram on purpose: any of these.
enum {
  IPPLAYOUT_DID_LOSE = 1,         // not sent; the rest of the record is what it would have been
  IPPLAYOUT_DID_DELAY = 2,        // held back: this is its own place, where it did not leave
  IPPLAYOUT_DID_SEND_HELD = 4,    // this is a frame that was held back before
  IPPLAYOUT_DID_IP_CHECKSUM = 8,  // wrong checksum
  IPPLAYOUT_DID_UDP_CHECKSUM = 16,
  IPPLAYOUT_DID_LEAVE_OUT = 32,    // too late (IPPLAYOUT_LATE_DROP)
  IPPLAYOUT_DID_REFUSE = 64,       // by the destination
  IPPLAYOUT_DID_FEC_COLUMN = 128,  // not of the stream: an FEC datagram that follows this one
  IPPLAYOUT_DID_FEC_ROW = 256,
  IPPLAYOUT_DID_DUPLICATE = 512,  // a second time, right behind the first
  IPPLAYOUT_DID_CORRUPT = 1024,   // bits of its payload are flipped, with checksums that fit
};

// Something to be done to datagrams. Each order is for datagrams of its own: one that an order is
// being carried out on is not taken by another one, nor by the chances of IpPlayoutFaults. An
// Amount of 0 is that of IpPlayoutFaults.
typedef struct IpPlayoutOrder {
  uint64_t Number;  // the host's own, with which it is reported
  uint32_t What;    // IPPLAYOUT_DID_LOSE, _DELAY, _DUPLICATE, _CORRUPT, _IP_CHECKSUM, _UDP_CHECKSUM
  uint32_t Count;   // datagrams in a row, 1 to 1,000,000; or 0, then LengthNs says
  uint32_t Amount;  // of a delay: behind so many later datagrams; of _CORRUPT: bits; 0: as
                    // IpPlayoutFaults
  uint32_t Reserved;
  int64_t AtNs;      // to the first datagram that is due at this time since the start, or later
  int64_t LengthNs;  // of _LOSE: all that is due for so long, FEC and what was held back too
} IpPlayoutOrder;

// What was done.
typedef struct IpPlayoutDone {
  uint64_t Number;
  uint32_t What;
  uint32_t Count;     // datagrams that it was done to
  uint64_t Datagram;  // the first of them
  int64_t FirstDueNs;
  int64_t LastDueNs;
} IpPlayoutDone;

// Of the current or last run.
typedef struct IpPlayoutFaultCounts {
  uint64_t Duplicated;  // datagrams; the other kinds are in PlayoutStatistics
  uint64_t Corrupted;
  uint64_t Waiting;      // orders that were not carried out to their end yet
  uint64_t NotReported;  // of those that were, without room for them
  uint64_t HeldFrames;   // of delayed datagrams, of all copies, that have not left yet
} IpPlayoutFaultCounts;

// One frame.
typedef struct IpPlayoutRecord {
  uint64_t Datagram;     // index from 0
  uint32_t Copy;         // 0 for the first
  uint32_t Did;          // IPPLAYOUT_DID_...
  int64_t DueNs;         // since the start, as the marks and the jitter say
  int64_t DepartureNs;   // as in IpPlayoutTiming; -1 when it did not leave
  uint32_t Bytes;        // Ethernet header to end of payload
  uint32_t RtpSequence;  // 0 to 65535; 0 for UDP
} IpPlayoutRecord;

// One frame with the times that it left by.
typedef struct IpPlayoutDeparture {
  IpPlayoutRecord Frame;  // DepartureNs is when the frame was given to the destination
  int64_t PlaceNs;        // CLOCK_MONOTONIC: DueNs after the start, and later by ShiftNs
  int64_t StampNs;        // CLOCK_MONOTONIC: the kernel's time of departure; -1 without one
} IpPlayoutDeparture;

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// A new playout, or null when memory has run out. Hundreds may be open.
IpPlayout* IpPlayoutOpen(void);

// Stops the playout if it runs and forgets it. Blocks as IpPlayoutStop does.
int IpPlayoutClose(IpPlayout* playout);

// Fills `*settings` with defaults: RTP over IPv4, 7 packets of 188 bytes to a datagram, random SSRC
// and sequence number, TTL 16, no addresses, no errors, no bit rate.
void IpPlayoutDefaults(IpPlayoutSettings* settings);

// Takes the settings for the next start. Refused while the playout runs, and as a whole when one of
// the values is not allowed. Forgets what was written and marked before.
int IpPlayoutConfigure(IpPlayout* playout, const IpPlayoutSettings* settings);

// "The byte at `offset` leaves at `time_ns`": the datagram that begins with it does. Between two
// marks time is linear, past the last one the last slope goes on, before the first one the first
// slope holds. Marks go up in offset and not down in time, and lie at or behind the end of what was
// written: a mark is set before the data that leads to it. What follows the last mark waits for the
// next one where there is only one, or until IpPlayoutEnd. Time 0 is the start. At least two marks,
// or a BitRate; with a BitRate marks are refused. Up to 65,536 wait at a time.
int IpPlayoutMark(IpPlayout* playout, uint64_t offset, int64_t time_ns);

// Starts `count` playouts at the same moment, all of them or none. `start_ns` is the time 0 of
// their marks on CLOCK_MONOTONIC; 0: as soon as a playout has StartBytes of data, for each by
// itself. A time that has passed makes the first frames late. Names the playout that was refused by
// its place in the list.
int IpPlayoutStart(IpPlayout* const* playouts, size_t count, int64_t start_ns);

// CLOCK_MONOTONIC in nanoseconds.
int64_t IpPlayoutNow(void);

// Appends all `bytes` of the stream; they are copied. Blocks while the ring is full, before the
// start too. IPPLAYOUT_ENDED when the playout has ended or is stopped meanwhile: then some of the
// bytes may have been taken. Asks for settings before it; refused behind IpPlayoutEnd.
int IpPlayoutWrite(IpPlayout* playout, const void* data, size_t bytes);

// Appends what there is room for, never blocks, and says in `*taken` how much that was.
int IpPlayoutTryWrite(IpPlayout* playout, const void* data, size_t bytes, size_t* taken);

// Declares the end of the data. Does not block.
int IpPlayoutEnd(IpPlayout* playout);

// Blocks until the playout has ended by itself, by a stop or by a failure, at most `timeout_ns`;
// below 0: without limit. IPPLAYOUT_DONE when everything left, IPPLAYOUT_NOT_YET, IPPLAYOUT_ENDED
// when it was stopped, or IPPLAYOUT_BAD_DESTINATION with the reason when it failed.
int IpPlayoutWait(IpPlayout* playout, int64_t timeout_ns);

// An eventfd(2) of the library that is readable from the end of the playout until its next start;
// 0 when the playout is not open. Not closed by the host; void once the playout is closed.
intptr_t IpPlayoutEndEvent(IpPlayout* playout);

// 1 holds the playout: nothing leaves from the call on, frames that were built wait. 0 lets it go
// on; the schedule has moved by the length of the pause.
int IpPlayoutPause(IpPlayout* playout, uint32_t pause);

// Ends the playout at once: what was built and has not left is counted as discarded. Blocks until
// the destination lets go of a frame in hand, at most about a second, and for the last playout of a
// pipe that nobody reads five more. What was written is gone.
// IPPLAYOUT_DONE also when it does not run; a file that could not be written whole is reported.
int IpPlayoutStop(IpPlayout* playout);

// Orders something to be done, from IpPlayoutConfigure on: before the start, too. Up to 4,096 wait
// at a time; a stop forgets them. IPPLAYOUT_ENDED where no datagram follows that could be hit.
int IpPlayoutOrderFault(IpPlayout* playout, const IpPlayoutOrder* order);

// The same, from the next datagram on.
int IpPlayoutDamage(IpPlayout* playout, uint32_t what, uint32_t count);

// Changes a playout from IpPlayoutConfigure on, also while it runs: with the first datagram that is
// due `at_ns` since the start or later, and that is not built yet. Of `settings` Errors, Faults and
// the jitter of Parametric hold from then on, all of them; the rest is not read. N of every RANGE
// datagrams are counted from the first datagram of the stream; at random places they begin with the
// next range. The schedule goes on from that datagram at `speed`, 0.001 to 1,000, where 1 is as
// BitRate or the marks say; what is due at a time, as orders are, is so by the schedule as played.
// Up to 256 wait at a time; a stop forgets them.
int IpPlayoutChange(IpPlayout* playout, const IpPlayoutSettings* settings, double speed,
                    int64_t at_ns);

// Takes up to `room` reports of orders that were carried out, oldest first; the last 4,096 are
// kept. An order that the end of the stream cut short is reported with what it was done to.
int IpPlayoutReadDone(IpPlayout* playout, IpPlayoutDone* out, size_t room, size_t* taken);
int IpPlayoutGetFaults(IpPlayout* playout, IpPlayoutFaultCounts* out);

// As for ipplayout.h, of the current or last run.
int IpPlayoutGetStatistics(IpPlayout* playout, PlayoutStatistics* out);
int IpPlayoutGetTiming(IpPlayout* playout, IpPlayoutTiming* out);

// How many frames of the current or last run left at most `up_to_ns` late, and how late all of
// these were together; INT64_MAX for all that left. Off by 1/32 of the lateness at most. Asked for
// a few bounds it makes a histogram.
int IpPlayoutGetLateness(IpPlayout* playout, int64_t up_to_ns, uint64_t* frames, int64_t* sum_ns);

// Takes up to `room` records of frames from the ledger, oldest first; `*taken` says how many. Never
// blocks, and never holds up the frames: a full ledger counts what it has no room for. With Stamps
// a record shows when its stamp has come, or once it is clear that none comes, within a second of
// the next frame. Frames that a stop discards have none.
int IpPlayoutReadLedger(IpPlayout* playout, IpPlayoutRecord* out, size_t room, size_t* taken);

// The same with more of each. A record is taken by one of the two.
int IpPlayoutReadDepartures(IpPlayout* playout, IpPlayoutDeparture* out, size_t room,
                            size_t* taken);

// Has a thread of the library write the ledger of the next runs to a pcapng file, from which it is
// then to be read: each frame with its time of departure in nanoseconds since 1970 (of a capture
// file, since its start), the kernel's where there is one, and a comment that says how late it was,
// by which of the two times, and what was done to it. Frames that did not leave are there at their
// places. Room for LedgerFrames whole frames is kept, at most 2^30 bytes. An empty `path` or null:
// no file. Between IpPlayoutConfigure, which forgets the path, and IpPlayoutStart. The file gets
// its name with IpPlayoutStop or IpPlayoutClose, which report when it could not be written whole.
int IpPlayoutWriteLedger(IpPlayout* playout, const char* path);

// The seed of the current or last run; 0 before the first one.
uint64_t IpPlayoutSeed(IpPlayout* playout);

// Why the last call of this thread that failed did, in a sentence. Valid until its next one.
const char* IpPlayoutError(void);

#ifdef __cplusplus
}  // extern "C"
#endif
#pragma GCC visibility pop
