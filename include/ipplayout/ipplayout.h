// SPDX-License-Identifier: MIT
// libipplayout: plays a transport stream out of an Ethernet adapter at an exact bit rate.
//
// One include for a host in C11 or C++20; link with -lipplayout.
//
// A host calls, in this order: InitIpPlayout; the settings; IPStart; IPWrite until its data ends;
// IPWriteTerminate; IPStop. Then again settings and IPStart, or CleanupIpPlayout. One playout runs
// at a time; everything here is process-wide.
//
// Conventions
// - Linkage: plain C under the names below, except GetIpAddressBytes.
// - Units: sizes in bytes, IPBitRate in megabits per second, times as named at each field.
//   Addresses are bytes in network order; a MAC address has 6, IPv4 4, IPv6 16.
// - Results: functions return 1 on success and 0 on failure unless stated otherwise; those
//   documented as "returns 1" fail only when out of memory or descriptors. No function throws.
// - Null pointers: a null argument is ignored.
// - Threads: functions may be called on any thread. Those that start, stop, initialise or clean up
//   wait for each other. The settings take no lock: keep them to the thread that starts playouts.
//   Notes at a function say what may run beside it.
// - Blocking: a function that blocks says what ends the wait. None has a time limit.
// - Events: an intptr_t that holds an eventfd(2) descriptor. 0 is no event and -1 an invalid one.
//   Signalled means readable, until somebody reads it; wait with poll(2) or any event loop. The
//   library never reads a host's event and never blocks on writing it.
// - Descriptors that the library opens have numbers from 3 up, also in a host that has closed its
//   standard streams.
// - Capabilities: the library's threads keep CAP_SETUID and CAP_SETGID, where the thread that calls
//   IPStart has them, and no others. So a host may change its user and groups at any time, for good
//   or for a while; a playout goes on.
// - Standard output gets the few messages named below, standard error those about neighbours.
// - Frames go straight to the adapter: queueing disciplines (tc) are passed by, and a capture on
//   the sending adapter does not see them. Capture at the far end.
#pragma once

#include <stdint.h>

#include "ipplayout/layout.h"
#include "ipplayout/records.h"
#include "ipplayout/settings.h"

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// ---- Lifecycle ----

// Result of a playout that cannot start or go on.
enum { IPPLAYOUT_FAILED = -800 };

// Makes the library ready: clears IPPlayParams, ErrorInsertion, ParametricSettings, IPOtherSettings
// and the reserved statistics, lists the adapters (one line with its MAC address per adapter on
// standard output) and creates the stop event. PlayFileSizeForIP, TSPacketSize, IPEnabled,
// IPBitRateChosen, IPBitRate and TTSSettings keep their values. Call it again after
// CleanupIpPlayout, or to see adapters that were plugged in since. Returns 1.
int InitIpPlayout(void);

// Opens the adapter at DeviceIndex, builds the chain of headers from the settings and starts to
// play what IPWrite brings. Returns 0, or IPPLAYOUT_FAILED when a playout runs already (it goes on
// undisturbed), there is no such adapter or it cannot be opened, or a setting cannot be played: an
// unknown IPLayerVersion or ProtocolMode, an IPBitRate that is not a finite number above 0, a
// datagram without room for its headers; or memory runs out. From its return
// IsPlayoutComplete is 0 and the statistics are the new run's. A pause that was asked for before
// goes on; see IPPause. Needs the right to send raw frames (CAP_NET_RAW). Capabilities that a
// thread of the host gives up or gains afterwards are that thread's alone: the adapter is open, and
// the library's threads have only CAP_SETUID and CAP_SETGID left, if anything. So a host may drop
// all of its capabilities as soon as this returns.
//
// What has been written since the last stop is played first. So the thread that feeds the run
// before must have ended by now: what it still writes would lead the new run, and an
// IPWriteTerminate of its would end it.
int IPStart(void);

// Hands over `count` units of 4 bytes of the stream; they are copied. Blocks while the 64 MiB ring
// is full: until a playout has made room or ends, also before the first start and between a stop
// and the next start. Returns 0, or IPPLAYOUT_FAILED, having taken nothing, when
// - a frame could not be sent: until the next IPStart,
// - the playout ended or was stopped while the call was blocked,
// - the ring is full after the end of the data and before the stop.
// After a stop it takes data, which leads the next playout. A count of 0 takes nothing and asks
// whether a frame could not be sent. One thread writes at a time, beside any other function.
int IPWrite(const void* data, uint16_t count);

// Declares the end of the data and blocks until the last datagram has left, the playout is stopped
// or fails, or the stop event is signalled. Returns 0 in each case, at once when no playout runs;
// IPWrite with a count of 0 then tells a failure. The end that is declared while no playout runs is
// that of the next one. Frames of the last batch that the adapter does not take are only reported
// on standard output: "An error occurred sending the packets:  Only %d bytes were sent".
int IPWriteTerminate(void);

// 1 holds the playout between two datagrams, any other value lets it go on. Written data waits in
// the ring meanwhile. A stop ends a pause, a start does not: one that was asked for before holds
// the playout before its first datagram. Returns 1.
int IPPause(uint32_t pause);

// Ends the playout and releases the adapter: the datagram in hand still leaves (of its copies up to
// 10,000 more), data in the ring does not. Where frames leave in batches up to two batches that
// were built before leave with it, at once. Blocks until no thread of the library is left, at most
// about a second at any bit rate. Needed also after IPWriteTerminate, before the next IPStart.
// Releases a blocked IPWrite; end the feeding thread before the next start (see there). Without a
// playout it discards what has been written for the next one. Both do the same.
void IPStop(void);
void IPStopImmediate(void);

// 1 when no datagram is left to send or nothing was started yet, else 0. Any time, any thread.
int IsPlayoutComplete(void);

// Has `*event` signalled whenever a playout completes, by its end, a stop or a failure; as often as
// it has been registered. It stays registered as long as the library is loaded, through a
// descriptor of the library's own: the host may close its descriptor at any time. Any time, any
// thread. Returns 1, or 0 when `*event` is a closed descriptor or there is no descriptor left.
int RegisterForIPPlayoutCompletion(const intptr_t* event);

// The event that releases a blocked IPWriteTerminate when the host signals it (writes the 8-byte
// number 1 to it). It stays signalled until the host reads it. 0 before InitIpPlayout and after
// CleanupIpPlayout; the library owns it. Any thread.
intptr_t GetIPStopEvent(void);

// Releases the list of adapters and the stop event. Stop the playout first. Returns 1.
int CleanupIpPlayout(void);

// ---- Statistics and deliberate errors, at any time and from any thread ----

// A consistent copy of the counters of the current or last playout. Returns 1.
int GetPlayoutStatistics(PlayoutStatistics* out);

// Returns 1. The counts of deliberate errors are in PlayoutStatistics.
int GetErrorInsertionStatistics(void);

// Sets every counter of PlayoutStatistics to 0. Those that are derived from the run's totals show
// the whole run again with its next datagram, if one runs.
void ClearStatistics(void);

TSStatistics* GetTSStats(void);
IPStatistics* GetStats(void);
IPStatistics* GetIPStats(void);  // same as GetStats

// Each damages the next datagram once, whatever ErrorInsertion says: it is not sent, leaves late
// (RTP only, behind up to 99 later ones), or carries a checksum one above the right value. Without
// a playout the request is dropped. Each returns 1.
int GeneratePacketLoss(void);
int GenerateSequenceError(void);
int GenerateIPChecksumError(void);
int GenerateUDPChecksumError(void);

// ---- Values that follow from the settings; from the thread that makes them ----

// Largest frame of a playout from the Ethernet header to the end of the payload: 16128 for IPv6
// and for IPv4 with fragmentation 1, else 1500; 0 for an unknown version.
uint32_t GetMaxIPMTU(uint32_t ipLayerVersion, uint32_t ipFragmentation);

// Each computes a length field of the headers for the packet size as set, stores it into the
// setting of that name and returns it: the total length of IPv4 with a 20-byte header (RFC 791),
// the payload length of IPv6 (RFC 8200), the length of UDP (RFC 768). What IPStart cuts off for
// GetMaxIPMTU or whole packets is not taken into account.
uint32_t GetTotalLength(void);
uint32_t GetIpv6PayloadLength(void);
uint32_t GetLength(void);

// Writes ReplicationCount, the number of extra copies, to `*out`. Returns 1.
int GetStreamReplicationCount(uint32_t* out);

// ---- Adapters ----

// Rebuilds the array of adapters from what InitIpPlayout found, as InitIpPlayout itself does.
// Pointers into the former array are void. Returns 1. Not beside other functions on adapters and
// addresses.
int CreateListOfDevices(void);

// The first of `*count` adapters, in the order that DeviceIndex counts. Null before
// CreateListOfDevices and after DeleteListOfDevices, whatever the count. The host only reads.
const DeviceListEntry* GetListOfDevices(int* count);

// Frees the array and its texts. Adapters can still be played to. Returns 1.
int DeleteListOfDevices(void);

// ---- Addresses ----

// Finds the MAC address of a neighbour and writes it to the 6 bytes at `*mac`: by ARP (RFC 826)
// for IPPLAYOUT_IPV4 and a target of 4 bytes, of the gateway when the target is off the adapter's
// subnet and does not answer; by neighbour solicitation (RFC 4861) for IPPLAYOUT_IPV6 and 16 bytes,
// which needs an adapter with exactly one IPv6 address. The adapter's own addresses give its own
// MAC. `deviceIndex` is a position as DeviceIndex. Returns 1 when an address was written, else 0;
// after a failure the six bytes hold no address. Blocks for the answer, up to a few seconds.
// Reasons of a failed ARP go to standard error and standard output.
int GetMacAddressForIP(int ipVersion, const uint8_t* target, uint8_t** mac, int deviceIndex);

// Writes this machine's first IPv4 address as dotted decimal to the 16 characters or more at
// `*text`: of its host name, or where that has only loopback addresses, of an adapter. May ask the
// name service. Returns 1.
int GetHostIPAddress(char** text);

#ifdef __cplusplus
}  // extern "C"
#endif

// Reads dotted decimal text, at most 15 characters of it, into 4 bytes. What follows a fourth
// number is ignored and a part that is not a number counts as 0. Returns 1, or 0 when there are
// fewer numbers than four or one is not 0 to 255; the bytes before it are written all the same. Any
// thread. This one function has C++ linkage; C programs reach it by its mangled name.
#ifdef __cplusplus
int GetIpAddressBytes(char* text, unsigned char* bytes);
#else
int GetIpAddressBytes(char* text, unsigned char* bytes) __asm__("_Z17GetIpAddressBytesPcPh");
#endif
#pragma GCC visibility pop
