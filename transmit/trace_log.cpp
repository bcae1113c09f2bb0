#include "transmit/trace_log.h"

#include <array>
#include <cstdarg>
#include <ctime>

namespace ipplayout {

std::FILE* OsaTraceFile = nullptr;
bool OsaTraceSilent = false;

namespace {

[[gnu::format(printf, 2, 0)]] int WriteLine(std::FILE* stream, const char* format,
                                            std::va_list arguments) {
  std::array<char, sizeof "mm/dd/yy hh:mm:ss "> stamp{};
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  std::strftime(stamp.data(), stamp.size(), "%m/%d/%y %H:%M:%S ", &local);
  std::fputs(stamp.data(), stream);
  const int count = std::vfprintf(stream, format, arguments);
  std::fputc('\n', stream);
  return count;
}

}  // namespace

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
