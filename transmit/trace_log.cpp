// SPDX-License-Identifier: MIT
#include "transmit/trace_log.h"

#include <cstdarg>
#include <ctime>
#include <initializer_list>

namespace ipplayout {

std::FILE* OsaTraceFile = nullptr;
bool OsaTraceSilent = false;

namespace {

[[gnu::format(printf, 2, 0)]] int WriteLine(std::FILE* stream, const char* format,
                                            std::va_list arguments) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  std::fprintf(stream, "%02d/%02d/%02d %02d:%02d:%02d ", local.tm_mon + 1, local.tm_mday,
               local.tm_year % 100, local.tm_hour, local.tm_min, local.tm_sec);
  const int count = std::vfprintf(stream, format, arguments);
  std::fputc('\n', stream);
  return count;
}

}  // namespace

// NOLINTNEXTLINE(cert-dcl50-cpp): the compiler checks the arguments against the format.
int OsaTrace(const char* format, ...) {
  int count = 0;
  for (std::FILE* stream : {OsaTraceFile, OsaTraceSilent ? nullptr : stdout}) {
    if (stream != nullptr) {
      std::va_list arguments;
      va_start(arguments, format);
      count = WriteLine(stream, format, arguments);
      va_end(arguments);
    }
  }
  return count;
}

}  // namespace ipplayout
