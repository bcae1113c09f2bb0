// SPDX-License-Identifier: MIT
// The timing record of a playout, as every JSON document has it.
#pragma once

#include "host/base/json.h"
#include "ipplayout/playouts.h"

namespace ipplay {

Json DeparturesJson(const IpPlayoutTiming& timing);

}  // namespace ipplay
