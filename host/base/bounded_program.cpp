// SPDX-License-Identifier: MIT
#include "host/base/bounded_program.h"

#include <linux/close_range.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <utility>

#include "host/base/capabilities.h"
#include "host/base/confinement.h"

namespace ipplay {
namespace {

// Behind others, and yet within its time: at 19, five busy processes leave it nothing.
constexpr int kNiceValue = 10;
constexpr rlim_t kMostDescriptors = 64;
constexpr int kSignalled = 128;  // and the signal's number

bool Limit(__rlimit_resource what, rlim_t most) {
  const rlimit limit{most, most};
  return ::setrlimit(what, &limit) == 0;
}

// It has its input and its output.
bool KeepNoDescriptors() {
  return ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0;
}

// The limits come last: until it has become the other program it is as large as this one.
bool Confine(const ProgramBounds& bounds) {
  KeepCapabilities({});
  ::clearenv();  // which may hold what is nobody else's business
  return ::setpriority(PRIO_PROCESS, 0, kNiceValue) == 0 && KeepNoDescriptors() && DenyReach() &&
         Limit(RLIMIT_CPU, static_cast<rlim_t>(bounds.time.count())) &&
         Limit(RLIMIT_FSIZE, bounds.output_bytes) && Limit(RLIMIT_NOFILE, kMostDescriptors) &&
         Limit(RLIMIT_CORE, 0) && Limit(RLIMIT_AS, bounds.memory_bytes);
}

}  // namespace

std::string FindProgram(const std::string& name) {
  const char* const path = std::getenv("PATH");
  std::istringstream folders(path == nullptr ? "" : path);
  for (std::string folder; std::getline(folders, folder, ':');) {
    std::string program = folder + "/" + name;
    if (folder.starts_with('/') && ::access(program.c_str(), X_OK) == 0) {
      return program;
    }
  }
  return {};
}

std::optional<ProgramOutcome> RunBounded(ChildProcess::Program program,
                                         const ProgramBounds& bounds) {
  ChildProcess child;
  program.hides_errors = true;
  if (!child.Start(std::move(program), [&bounds] { return Confine(bounds); })) {
    return std::nullopt;
  }
  if (!child.WaitFor(bounds.time)) {
    child.Kill();
    return std::nullopt;
  }
  ProgramOutcome outcome{child.Status(), child.Output()};
  if (outcome.status > kSignalled || outcome.output.size() >= bounds.output_bytes) {
    return std::nullopt;
  }
  return outcome;
}

}  // namespace ipplay
