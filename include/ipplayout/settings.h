// SPDX-License-Identifier: MIT
// The settings: one set for the whole process. Included by ipplayout.h, which states the
// conventions; records.h says what each field means.
//
// Every SetX stores its argument unchecked in field X, every GetX returns the field. They take no
// lock: call them from the thread that starts and stops playouts. IPStart works on a copy, so what
// is set during a playout takes effect at the next start. One setting is read while a playout runs:
// sequence errors, scheduled or requested, come about as long as ProtocolMode is IPPLAYOUT_RTP. All
// settings are 0 when the library is loaded; InitIpPlayout clears most again (see there), so set
// them after it.
//
// Setters of addresses copy 4 (IPv4), 6 (MAC) or 16 bytes (IPv6) in network order; their getters
// return the library's own field. Pointers that a getter returns stay valid as long as the library
// is loaded; the host may read and write through them.
#pragma once

#include <stdint.h>

#include "ipplayout/records.h"

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// ---- Input and rate ----

// Bytes that are about to be played. Playout starts once 0.8 of it, and at most 0.8 of the 64 MiB
// ring, has been written; 0 starts it with the first byte.
void SetPlayFileSizeForIP(uint64_t size);
uint64_t GetPlayFileSizeForIP(void);

// Bytes of one transport stream packet of the input: 188, 204 or 192; 0 when the input has no
// packets and may be cut anywhere. The setter returns 1.
int SetTSPacketSize(uint32_t value);
uint32_t GetTSPacketSize(void);

// Megabits per second of one stream, counted over whole frames from the Ethernet header to the end
// of the payload. IPStart refuses what is not a finite number above 0.
void SetIPBitRate(double value);
double GetIPBitRate(void);

// Marks of the host's own; only kept.
void SetIPBitRateChosen(uint32_t value);
uint32_t GetIPBitRateChosen(void);
void SetIPEnabled(uint32_t value);
uint32_t IsIPEnabled(void);

// ---- Playout: IPPlayParams ----

void SetIPPlayParams(const IPPlayParams* params);
IPPlayParams* GetIPPlayParams(void);

// Texts are cut at 199 characters. Both getters return the field itself, so GetConfigurationName
// returns the address that GetIPPlayParams returns.
void SetConfigurationName(const char* name);
char* GetConfigurationName(void);
void SetDeviceName(const char* name);
char* GetDeviceName(void);

// Also copies the description of the adapter at that position of the array of GetListOfDevices to
// DeviceName; an index without an adapter leaves DeviceName as it is.
void SetDeviceIndex(uint32_t index);
uint32_t GetDeviceIndex(void);

void SetIPLayerVersion(uint32_t value);
uint32_t GetIPLayerVersion(void);
void SetProtocolMode(uint32_t value);
uint32_t GetProtocolMode(void);
void SetBroadcastType(uint32_t value);
uint32_t GetBroadcastType(void);
void SetPacketSizeMode(uint32_t value);
uint32_t GetPacketSizeMode(void);
void SetIPPacketSize(uint32_t value);
uint32_t GetIPPacketSize(void);
void SetTSPacketCount(uint32_t value);
uint32_t GetTSPacketCount(void);
void SetTSFragmentation(uint32_t value);
uint32_t GetTSFragmentation(void);
void SetIPFragmentation(uint32_t value);
uint32_t GetIPFragmentation(void);
void SetReplicationCount(int32_t value);
int32_t GetReplicationCount(void);

void SetSrcAddrAdvansedFlag(uint32_t value);
uint32_t GetSrcAddrAdvansedFlag(void);
void SetDstAddrAdvansedFlag(uint32_t value);
uint32_t GetDstAddrAdvansedFlag(void);
void SetSrcIpv6AddrAdvansedFlag(uint32_t value);
uint32_t GetSrcIpv6AddrAdvansedFlag(void);
void SetDstIpv6AddrAdvansedFlag(uint32_t value);
uint32_t GetDstIpv6AddrAdvansedFlag(void);
void SetSrcMacAddrAdvansedFlag(uint32_t value);
uint32_t GetSrcMacAddrAdvansedFlag(void);
void SetDstMacAddrAdvansedFlag(uint32_t value);
uint32_t GetDstMacAddrAdvansedFlag(void);
void SetSrcPortAdvansedFlag(uint32_t value);
uint32_t GetSrcPortAdvansedFlag(void);
void SetDstPortAdvansedFlag(uint32_t value);
uint32_t GetDstPortAdvansedFlag(void);
void SetVLANIdAdvansedFlag(uint32_t value);
uint32_t GetVLANIdAdvansedFlag(void);
void SetEtherProtocolAdvansedFlag(uint32_t value);
uint32_t GetEtherProtocolAdvansedFlag(void);

// ---- Headers: ProtocolHeadersSettings and the records in it ----

// The record begins with EthernetHeaderSettings and that with DestinationMacAddress, so the getters
// of all three return one address.
void SetProtocolHeadersSettings(const ProtocolHeadersSettings* settings);
ProtocolHeadersSettings* GetProtocolHeadersSettings(void);

void SetEthernetHeaderSettings(const EthernetHeaderSettings* settings);
EthernetHeaderSettings* GetEthernetHeaderSettings(void);
void SetDestinationMacAddress(const uint8_t* address);
uint8_t* GetDestinationMacAddress(void);
void SetSourceMacAddress(const uint8_t* address);
uint8_t* GetSourceMacAddress(void);
void SetEProtocol(uint32_t value);
uint32_t GetEProtocol(void);

void SetVLANEnabled(uint32_t value);
uint32_t GetVLANEnabled(void);
void SetTPID(uint32_t value);
uint32_t GetTPID(void);
void SetVLANPriorityLevel(uint8_t value);
uint8_t GetVLANPriorityLevel(void);
void SetCFI(uint32_t value);
uint32_t GetCFI(void);
void SetVID(uint32_t value);
uint32_t GetVID(void);

// TotalLength has no plain getter: GetTotalLength computes it.
void SetIPHeaderSettings(const IPHeaderSettings* settings);
IPHeaderSettings* GetIPHeaderSettings(void);
void SetIPVersion(uint8_t value);
uint8_t GetIPVersion(void);
void SetTOS(uint8_t value);
uint8_t GetTOS(void);
void SetHeaderLength(uint32_t value);
uint32_t GetHeaderLength(void);
void SetTotalLength(uint32_t value);
void SetFlags(uint8_t value);
uint8_t GetFlags(void);
void SetTTL(uint32_t value);
uint32_t GetTTL(void);
void SetIdentification(uint32_t value);
uint32_t GetIdentification(void);
void SetFragmentOffset(uint32_t value);
uint32_t GetFragmentOffset(void);
void SetIPProtocol(uint32_t value);
uint32_t GetIPProtocol(void);
void SetSourceIP(const uint8_t* address);
uint8_t* GetSourceIP(void);
void SetChecksum(uint32_t value);
uint32_t GetChecksum(void);
void SetDestinationIP(const uint8_t* address);
uint8_t* GetDestinationIP(void);

// The fields are read back through GetIPv6HeaderSettings; IPv6Version is set with the record only.
void SetIPv6HeaderSettings(const IPv6HeaderSettings* settings);
IPv6HeaderSettings* GetIPv6HeaderSettings(void);
void SetTrafficClass(uint8_t value);
void SetFlowLabel(uint32_t value);
void SetNextHeader(uint8_t value);
void SetHopLimit(uint8_t value);
void SetSourceIPv6(const uint8_t* address);
void SetDestinationIPv6(const uint8_t* address);

// Length has no plain getter: GetLength computes it.
void SetUDPHeaderSettings(const UDPHeaderSettings* settings);
UDPHeaderSettings* GetUDPHeaderSettings(void);
void SetSourcePort(uint32_t value);
uint32_t GetSourcePort(void);
void SetDestinationPort(uint32_t value);
uint32_t GetDestinationPort(void);
void SetLength(uint32_t value);

// RandomSequenceNumber and RandomSSRC are set with the record only. SetSequenceNumber and SetSSRC
// clear them, so that the number set is the one that is used.
void SetRTPHeaderSettings(const RTPHeaderSettings* settings);
RTPHeaderSettings* GetRTPHeaderSettings(void);
void SetRTPVersion(uint8_t value);
uint8_t GetRTPVersion(void);
void SetExtension(int32_t value);
int32_t GetExtension(void);
void SetMarker(uint32_t value);
uint32_t GetMarker(void);
void SetSequenceNumber(uint32_t value);
uint32_t GetSequenceNumber(void);
void SetPadding(uint32_t value);
uint32_t GetPadding(void);
void SetCSRCCount(uint32_t value);
uint32_t GetCSRCCount(void);
void SetPayloadType(uint32_t value);
uint32_t GetPayloadType(void);
void SetTimeStamp(uint32_t value);
uint32_t GetTimeStamp(void);
void SetSSRC(uint32_t value);
uint32_t GetSSRC(void);

// ---- Differences between replicated copies: ProtocolHeadersIncrements ----

// As with the headers, the getters of the whole, of its Ethernet record and of the destination
// MAC increment return one address.
void SetProtocolHeadersIncrements(const ProtocolHeadersIncrements* increments);
ProtocolHeadersIncrements* GetProtocolHeadersIncrements(void);

void SetEthernetHeaderIncrements(const EthernetHeaderIncrements* increments);
EthernetHeaderIncrements* GetEthernetHeaderIncrements(void);
void SetDestinationMacAddressIncrement(const uint8_t* increment);
uint8_t* GetDestinationMacAddressIncrement(void);
void SetSourceMacAddressIncrement(const uint8_t* increment);
uint8_t* GetSourceMacAddressIncrement(void);
void SetEProtocolIncrement(uint32_t value);
uint32_t GetEProtocolIncrement(void);

void SetIPHeaderIncrements(const IPHeaderIncrements* increments);
IPHeaderIncrements* GetIPHeaderIncrements(void);
void SetTOSIncrement(uint8_t value);
uint8_t GetTOSIncrement(void);
void SetTTLIncrement(uint32_t value);
uint32_t GetTTLIncrement(void);
void SetIPProtocolIncrement(uint32_t value);
uint32_t GetIPProtocolIncrement(void);
void SetSourceIPIncrement(const uint8_t* increment);
uint8_t* GetSourceIPIncrement(void);
void SetDestinationIPIncrement(const uint8_t* increment);
uint8_t* GetDestinationIPIncrement(void);

void SetIPv6HeaderIncrements(const IPv6HeaderIncrements* increments);
IPv6HeaderIncrements* GetIPv6HeaderIncrements(void);
void SetTrafficClassIncrement(uint8_t value);
uint8_t GetTrafficClassIncrement(void);
void SetFlowLabelIncrement(uint32_t value);
uint32_t GetFlowLabelIncrement(void);
void SetNextHeaderIncrement(uint8_t value);
uint8_t GetNextHeaderIncrement(void);
void SetHopLimitIncrement(uint8_t value);
uint8_t GetHopLimitIncrement(void);
void SetSourceIPv6AddressIncrement(const uint8_t* increment);
uint8_t* GetSourceIPv6AddressIncrement(void);
void SetDestinationIPv6AddressIncrement(const uint8_t* increment);
uint8_t* GetDestinationIPv6AddressIncrement(void);

void SetUDPHeaderIncrements(const UDPHeaderIncrements* increments);
UDPHeaderIncrements* GetUDPHeaderIncrements(void);
void SetSourcePortIncrement(uint32_t value);
uint32_t GetSourcePortIncrement(void);
void SetDestinationPortIncrement(uint32_t value);
uint32_t GetDestinationPortIncrement(void);

void SetRTPHeaderIncrements(const RTPHeaderIncrements* increments);
RTPHeaderIncrements* GetRTPHeaderIncrements(void);
void SetPayloadTypeIncrement(uint32_t value);
uint32_t GetPayloadTypeIncrement(void);
void SetSSRCIncrement(uint32_t value);
uint32_t GetSSRCIncrement(void);

void SetVLANHeaderIncrements(const VLANHeaderIncrements* increments);
VLANHeaderIncrements* GetVLANHeaderIncrements(void);
void SetVLANIdentifierIncrement(uint16_t value);  // zero-extended into the field
uint32_t GetVLANIdentifierIncrement(void);

// ---- Deliberate errors: ErrorInsertion ----

void SetErrorInsertion(const ErrorInsertion* settings);
ErrorInsertion* GetErrorInsertion(void);
void SetErrInsertionEnable(uint32_t value);
uint32_t GetErrInsertionEnable(void);
void SetPacketLossEnabled(uint32_t value);
uint32_t GetPacketLossEnabled(void);
void SetNumPacketLoss(uint32_t value);
uint32_t GetNumPacketLoss(void);
void SetPacketLossRange(uint32_t value);
uint32_t GetPacketLossRange(void);
void SetSequenceErrorEnabled(uint32_t value);
uint32_t GetSequenceErrorEnabled(void);
void SetNumSequenceError(uint32_t value);
uint32_t GetNumSequenceError(void);
void SetSequenceErrorRange(uint32_t value);
uint32_t GetSequenceErrorRange(void);
void SetSequenceErrorDistance(uint32_t value);
uint32_t GetSequenceErrorDistance(void);
void SetChecksumErrorEnabled(uint32_t value);
uint32_t GetChecksumErrorEnabled(void);
void SetChecksumErrorType(uint32_t value);
uint32_t GetChecksumErrorType(void);
void SetNumChecksumError(uint32_t value);
uint32_t GetNumChecksumError(void);
void SetChecksumErrorRange(uint32_t value);
uint32_t GetChecksumErrorRange(void);
void SetRandomizeErrors(uint32_t value);
uint32_t GetRandomizeErrors(void);

// ---- Bursts and jitter: ParametricSettings ----

// Passed by value; the getter fills the host's record.
void SetParametricSettings(ParametricSettings settings);
void GetParametricSettings(ParametricSettings* out);
void SetBurstMode(uint32_t value);
uint32_t GetBurstMode(void);
void SetBurstValueType(uint32_t value);
uint32_t GetBurstValueType(void);
void SetBurstPeriod(uint32_t value);
uint32_t GetBurstPeriod(void);
void SetBurstSize(uint32_t value);
uint32_t GetBurstSize(void);
void SetLowJitterModeEnabled(uint32_t value);
uint32_t GetLowJitterModeEnabled(void);
void SetJitterEnabled(uint32_t value);
uint32_t GetJitterEnabled(void);
void SetJitterPeriod(float value);
float GetJitterPeriod(void);
void SetJitterDistributionType(uint32_t value);
uint32_t GetJitterDistributionType(void);

// ---- Priorities: IPOtherSettings ----

void SetIPOtherSettings(uint32_t threadPriority, uint32_t processPriority);
void GetIPOtherSettings(IPOtherSettings* out);
void SetPlayerThreadPriority(uint32_t value);
uint32_t GetPlayerThreadPriority(void);
void SetPlayerProcessPriority(uint32_t value);
uint32_t GetPlayerProcessPriority(void);

// ---- Time-stamped input: TTSSettings ----

// Passed by value; the getter fills the host's record.
void SetTTSSettings(TTSSettings settings);
void GetTTSSettings(TTSSettings* out);
void SetTTSEnabled(uint32_t value);
uint32_t GetTTSEnabled(void);
void SetTTSPreserveFileTimestamps(uint32_t value);
uint32_t GetTTSPreserveFileTimestamps(void);
void SetTTSJitterEnable(uint32_t value);
uint32_t GetTTSJitterEnable(void);
void SetTTSJitterPeriod(uint32_t value);
uint32_t GetTTSJitterPeriod(void);
void SetTTSJitterAmplitude(uint32_t value);
uint32_t GetTTSJitterAmplitude(void);
void SetTTSJitterPulseWidth(uint32_t value);
uint32_t GetTTSJitterPulseWidth(void);
void SetTTSJitterPatternType(uint32_t value);
uint32_t GetTTSJitterPatternType(void);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
