// SPDX-License-Identifier: MIT
// Accessors of whole records. The records nest and each begins with its first member, which is why
// getters of different types may return one address.
#include <cstring>

#include "control/settings_store.h"
#include "ipplayout/ipplayout.h"

namespace {

using ipplayout::Settings;

ProtocolHeadersSettings& Headers() {
  return Settings().params.ProtocolHeadersSettings;
}
ProtocolHeadersIncrements& Increments() {
  return Settings().params.ProtocolHeadersIncrements;
}

// Copies the padding too, and from a pointer into the settings themselves.
template <typename Record>
void CopyRecord(Record* to, const Record* from) {
  if (to != nullptr && from != nullptr) {
    std::memmove(to, from, sizeof(Record));
  }
}

}  // namespace

// NOLINTBEGIN(bugprone-macro-parentheses): types and names cannot stand in parentheses.
#define RECORD(Record, field)              \
  void Set##Record(const Record* record) { \
    CopyRecord(&(field), record);          \
  }                                        \
  Record* Get##Record() {                  \
    return &(field);                       \
  }
// NOLINTEND(bugprone-macro-parentheses)

RECORD(IPPlayParams, Settings().params)
RECORD(ProtocolHeadersSettings, Headers())
RECORD(EthernetHeaderSettings, Headers().EthernetHeaderSettings)
RECORD(IPHeaderSettings, Headers().IPHeaderSettings)
RECORD(IPv6HeaderSettings, Headers().IPv6HeaderSettings)
RECORD(UDPHeaderSettings, Headers().UDPHeaderSettings)
RECORD(RTPHeaderSettings, Headers().RTPHeaderSettings)
RECORD(ProtocolHeadersIncrements, Increments())
RECORD(EthernetHeaderIncrements, Increments().EthernetHeaderIncrements)
RECORD(IPHeaderIncrements, Increments().IPHeaderIncrements)
RECORD(IPv6HeaderIncrements, Increments().IPv6HeaderIncrements)
RECORD(UDPHeaderIncrements, Increments().UDPHeaderIncrements)
RECORD(RTPHeaderIncrements, Increments().RTPHeaderIncrements)
RECORD(VLANHeaderIncrements, Increments().VLANHeaderIncrements)
RECORD(ErrorInsertion, Settings().error_insertion)

#undef RECORD

void SetParametricSettings(ParametricSettings record) {
  Settings().parametric = record;
}
void GetParametricSettings(ParametricSettings* out) {
  CopyRecord(out, &Settings().parametric);
}

void SetTTSSettings(TTSSettings record) {
  Settings().tts = record;
}
void GetTTSSettings(TTSSettings* out) {
  CopyRecord(out, &Settings().tts);
}

void SetIPOtherSettings(uint32_t thread_priority, uint32_t process_priority) {
  Settings().other = {thread_priority, process_priority};
}
void GetIPOtherSettings(IPOtherSettings* out) {
  CopyRecord(out, &Settings().other);
}
