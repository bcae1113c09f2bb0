// SPDX-License-Identifier: MIT
// Another program that is given hostile bytes and prints what it makes of them, within bounds.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "host/base/child_process.h"

namespace ipplay {

struct ProgramBounds {
  std::chrono::seconds time{};  // on the clock, and of a processor
  std::uint64_t memory_bytes = 0;
  std::uint64_t output_bytes = 0;
};

// The absolute path of what a shell would run; empty where there is none.
std::string FindProgram(const std::string& name);

struct ProgramOutcome {
  int status = 0;  // as ChildProcess has it
  std::string output;
};

// Nothing where it did not start, was not over in time, printed too much, or ended by a signal, as
// that of a bound. It comes after others at the processor, and DenyReach() holds for it. Any
// thread.
std::optional<ProgramOutcome> RunBounded(ChildProcess::Program program,
                                         const ProgramBounds& bounds);

}  // namespace ipplay
