// SPDX-License-Identifier: MIT
// What would be played, and how, without sending anything.
#pragma once

#include <vector>

#include "host/library/adapters.h"
#include "host/serve/http_message.h"
#include "host/serve/order.h"

namespace ipplay::serve {

// The plan, or what is wrong with the order. A live input is waited for at most two seconds. Rights
// are those of the calling thread.
HttpResponse PlanOf(const Order& order, const std::vector<Adapter>& adapters);

}  // namespace ipplay::serve
