// SPDX-License-Identifier: MIT
#include "host/base/confinement.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <tuple>

namespace ipplay {
namespace {

constexpr char kOpenedFirst[] = "/dev/null";

// What hostile bytes that took over the parser would try.
const struct {
  const char* name;
  void (*call)();
} kForbidden[] = {
    {"runs a program", [] { ::execl("/bin/true", "true", nullptr); }},
    {"makes a process", [] { std::ignore = ::fork(); }},
    {"opens a connection", [] { ::socket(AF_INET, SOCK_STREAM, 0); }},
    {"sends", [] { ::send(0, "", 1, 0); }},
    {"writes a file", [] { ::open("/dev/null", O_WRONLY); }},
    {"makes a file", [] { ::open("/tmp/ipplay-planted", O_CREAT | O_EXCL | O_WRONLY, 0600); }},
    {"takes a file away", [] { ::unlinkat(AT_FDCWD, "/nonexistent", 0); }},
    {"runs what it wrote",
     [] { ::mmap(nullptr, 4096, PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0); }},
    {"looks into others", [] { ::syscall(SYS_ptrace, 0, 0, nullptr, nullptr); }},
    {"becomes another user", [] { std::ignore = ::setresuid(1, 1, 1); }},
};

TEST(Confinement, EndsTheProcessAtWhatReadingFramesNeverNeeds) {
  for (const auto& [name, call] : kForbidden) {
    EXPECT_EXIT(
        {
          AllowReadingFramesOnly(NewFiles::kNone);
          call();
          std::_Exit(EXIT_SUCCESS);
        },
        ::testing::KilledBySignal(SIGSYS), "")
        << name;
  }
}

TEST(Confinement, LeavesWhatResultsNeed) {
  for (const NewFiles files : {NewFiles::kNone, NewFiles::kAllowed}) {
    EXPECT_EXIT(
        {
          AllowReadingFramesOnly(files);
          const int fd = ::open(kOpenedFirst, O_RDONLY | O_CLOEXEC);
          const std::string memory(64 << 20, 'x');
          bool made = true;
          if (files == NewFiles::kAllowed) {
            made = ::open("/tmp", O_CREAT | O_EXCL | O_NOFOLLOW | O_WRONLY, 0600) < 0 &&
                   errno == EEXIST;
          }
          std::_Exit(fd >= 0 && memory.back() == 'x' && made ? EXIT_SUCCESS : EXIT_FAILURE);
        },
        ::testing::ExitedWithCode(EXIT_SUCCESS), "");
  }
}

TEST(Confinement, RootBecomesWhoCalledSudoOrNobody) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root";
  }
  const struct {
    const char* user;
    const char* group;
    uid_t truth;
  } cases[] = {{"1234", "1235", 1234},
               {nullptr, nullptr, 65534},
               {"0", "0", 65534},
               {"1234x", "1235", 65534}};
  for (const auto& c : cases) {
    EXPECT_EXIT(
        {
          ::unsetenv("SUDO_UID");
          ::unsetenv("SUDO_GID");
          if (c.user != nullptr) {
            ::setenv("SUDO_UID", c.user, 1);
            ::setenv("SUDO_GID", c.group, 1);
          }
          const bool became = !BecomeUnprivileged({}) && ::getuid() == c.truth &&
                              ::geteuid() == c.truth && ::getgroups(0, nullptr) == 0 &&
                              ::setresuid(0, 0, 0) != 0;
          std::_Exit(became ? EXIT_SUCCESS : EXIT_FAILURE);
        },
        ::testing::ExitedWithCode(EXIT_SUCCESS), "");
  }
}

}  // namespace
}  // namespace ipplay
