// SPDX-License-Identifier: MIT
// What the compiler made of the records, compared with the size that hosts rely on.
// control/record_layout.cpp does the same with the place of each field.
#pragma once

#include <assert.h>
#include <stdint.h>

#include "ipplayout/records.h"

#define IPPLAYOUT_SIZE(record, bytes) static_assert(sizeof(record) == (bytes), "size of " #record)

IPPLAYOUT_SIZE(EthernetHeaderSettings, 16);
IPPLAYOUT_SIZE(IPHeaderSettings, 44);
IPPLAYOUT_SIZE(IPv6HeaderSettings, 48);
IPPLAYOUT_SIZE(UDPHeaderSettings, 12);
IPPLAYOUT_SIZE(RTPHeaderSettings, 44);
IPPLAYOUT_SIZE(ProtocolHeadersSettings, 184);
IPPLAYOUT_SIZE(EthernetHeaderIncrements, 16);
IPPLAYOUT_SIZE(IPHeaderIncrements, 20);
IPPLAYOUT_SIZE(IPv6HeaderIncrements, 44);
IPPLAYOUT_SIZE(UDPHeaderIncrements, 8);
IPPLAYOUT_SIZE(RTPHeaderIncrements, 8);
IPPLAYOUT_SIZE(VLANHeaderIncrements, 4);
IPPLAYOUT_SIZE(ProtocolHeadersIncrements, 100);
IPPLAYOUT_SIZE(IPPlayParams, 764);
IPPLAYOUT_SIZE(ErrorInsertion, 52);
IPPLAYOUT_SIZE(ParametricSettings, 36);
IPPLAYOUT_SIZE(IPOtherSettings, 8);
IPPLAYOUT_SIZE(TTSSettings, 28);
IPPLAYOUT_SIZE(PlayoutStatistics, 96);
IPPLAYOUT_SIZE(TSStatistics, 32);
IPPLAYOUT_SIZE(IPStatistics, 32);
#if UINTPTR_MAX == UINT32_MAX
IPPLAYOUT_SIZE(DeviceListEntry, 436);
#else
IPPLAYOUT_SIZE(DeviceListEntry, 464);
#endif

#undef IPPLAYOUT_SIZE
