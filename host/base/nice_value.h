// SPDX-License-Identifier: MIT
// The nice value of this process.
#pragma once

namespace ipplay {

// Raises it to `nice`; a higher one is kept.
void RaiseNiceValue(int nice);

}  // namespace ipplay
