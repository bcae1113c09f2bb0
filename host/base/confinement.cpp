// SPDX-License-Identifier: MIT
#include "host/base/confinement.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <pwd.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "host/base/capabilities.h"
#include "host/base/numbers.h"

namespace ipplay {
namespace {

// Sanitizers and the counting of lines do things of their own when the process ends.
#ifdef IPPLAY_INSTRUMENTED
constexpr bool kIsInstrumented = true;
#else
constexpr bool kIsInstrumented = false;
#endif

struct User {
  uid_t user;
  gid_t group;
};

std::optional<unsigned> NumberFrom(const char* variable) {
  const char* text = std::getenv(variable);
  const auto number = text == nullptr ? std::nullopt : ParseNumber(text, 1, UINT32_MAX - 1);
  return number ? std::optional(static_cast<unsigned>(*number)) : std::nullopt;
}

// Only root is asked, whose environment is root's to set.
User UnprivilegedUser() {
  constexpr User kOverflow{65534, 65534};
  const auto user = NumberFrom("SUDO_UID");
  const auto group = NumberFrom("SUDO_GID");
  if (user && group) {
    return {*user, *group};
  }
  const passwd* nobody = ::getpwnam("nobody");
  return nobody == nullptr ? kOverflow : User{nobody->pw_uid, nobody->pw_gid};
}

// A user namespace may have no other user; its root is an ordinary user already.
bool IsRootOfANamespace(int error) {
  return error == EINVAL || error == EPERM;
}

using Filter = std::unique_ptr<void, decltype(&seccomp_release)>;

constexpr const char* kAlwaysNeeded[] = {
    // Frames, the adapter's state, and the expected file.
    "read", "readv", "pread64", "recvfrom", "recvmsg", "getsockopt", "getsockname", "poll", "ppoll",
    "close", "lseek", "fstat", "newfstatat", "fcntl",
    // Results, and the sender beside a demonstration.
    "write", "writev", "wait4", "kill",
    // Memory, time, and what the C library does by itself.
    "munmap", "mremap", "brk", "madvise", "futex", "clock_gettime", "gettimeofday", "time",
    "clock_nanosleep", "nanosleep", "getrandom", "sched_getaffinity", "sched_yield", "getpid",
    "gettid", "geteuid", "getuid", "tgkill", "rt_sigaction", "rt_sigprocmask", "rt_sigreturn",
    "restart_syscall", "exit", "exit_group"};

constexpr const char* kNeededForFiles[] = {"fsync", "fchown", "renameat", "renameat2", "unlinkat"};

using Arguments = std::initializer_list<scmp_arg_cmp>;

// False where a rule has no place. Systems lack some of the names.
bool AddRule(scmp_filter_ctx filter, std::uint32_t action, const char* name, Arguments arguments) {
  const int call = seccomp_syscall_resolve_name(name);
  return call == __NR_SCMP_ERROR ||
         seccomp_rule_add_array(filter, action, call, static_cast<unsigned>(arguments.size()),
                                arguments.begin()) == 0;
}

bool Allow(scmp_filter_ctx filter, const char* name, Arguments arguments = {}) {
  return AddRule(filter, SCMP_ACT_ALLOW, name, arguments);
}

bool Deny(scmp_filter_ctx filter, const char* name, Arguments arguments = {}) {
  return AddRule(filter, SCMP_ACT_ERRNO(EPERM), name, arguments);
}

scmp_arg_cmp MaskedArgument(unsigned place, unsigned mask, unsigned value) {
  return {place, SCMP_CMP_MASKED_EQ, mask, value};
}

bool AllowWithArguments(scmp_filter_ctx filter, NewFiles files) {
  constexpr unsigned kNew = O_CREAT | O_EXCL | O_NOFOLLOW;
  bool all = true;
  // Memory that is written is never run.
  all &= Allow(filter, "mmap", {MaskedArgument(2, PROT_EXEC, 0)});
  all &= Allow(filter, "mprotect", {MaskedArgument(2, PROT_EXEC, 0)});
  // The adapter's counters, the time zone.
  all &= Allow(filter, "openat", {MaskedArgument(2, O_ACCMODE | O_CREAT | O_TRUNC, O_RDONLY)});
  if (files == NewFiles::kAllowed) {
    all &= Allow(filter, "openat", {MaskedArgument(2, kNew, kNew)});
  }
  // The kernel looks at the lower half only.
  constexpr unsigned kRequest = 0xFFFFFFFF;
  for (const unsigned request :
       {unsigned{TCGETS}, unsigned{TIOCGWINSZ}, unsigned{SIOCGIFINDEX}, unsigned{SIOCGIFFLAGS}}) {
    all &= Allow(filter, "ioctl", {MaskedArgument(1, kRequest, request)});
  }
  // The buffer of the adapter is given back.
  all &=
      Allow(filter, "setsockopt",
            {MaskedArgument(1, kRequest, SOL_PACKET), MaskedArgument(2, kRequest, PACKET_RX_RING)});
  return all;
}

constexpr const char* kReach[] = {
    // Other machines and processes.
    "socket", "socketpair", "connect", "bind", "listen", "io_uring_setup", "fork", "vfork",
    "execveat", "kill", "tkill", "pidfd_open", "pidfd_getfd", "pidfd_send_signal", "ptrace",
    "process_vm_readv", "process_vm_writev", "unshare", "setns", "mount",
    // Names of files.
    "openat2", "creat", "truncate", "unlink", "unlinkat", "rename", "renameat", "renameat2",
    "mkdir", "mkdirat", "rmdir", "link", "linkat", "symlink", "symlinkat", "mknod", "mknodat",
    "chmod", "fchmodat", "chown", "lchown", "fchownat"};

bool DenyWithArguments(scmp_filter_ctx filter) {
  bool all = true;
  for (const unsigned mode : {unsigned{O_WRONLY}, unsigned{O_RDWR}}) {
    all &= Deny(filter, "open", {MaskedArgument(1, O_ACCMODE, mode)});
    all &= Deny(filter, "openat", {MaskedArgument(2, O_ACCMODE, mode)});
  }
  all &= Deny(filter, "open", {MaskedArgument(1, O_CREAT, O_CREAT)});
  all &= Deny(filter, "openat", {MaskedArgument(2, O_CREAT, O_CREAT)});
  // Of its own threads only.
  all &= Deny(filter, "tgkill", {{0, SCMP_CMP_NE, static_cast<scmp_datum_t>(::getpid()), 0}});
  // Threads are made by the older call, whose flags can be looked at; processes are not.
  all &= AddRule(filter, SCMP_ACT_ERRNO(ENOSYS), "clone3", {});
  all &= Deny(filter, "clone", {MaskedArgument(0, CLONE_THREAD, 0)});
  return all;
}

}  // namespace

bool DenyReach() {
  RefuseNewPrivileges();
  const Filter filter(seccomp_init(SCMP_ACT_ALLOW), &seccomp_release);
  if (filter == nullptr) {
    return false;
  }
  bool all = DenyWithArguments(filter.get());
  for (const char* name : kReach) {
    all &= Deny(filter.get(), name);
  }
  return all && seccomp_load(filter.get()) == 0;
}

void HideMemory() {
  if (!kIsInstrumented) {
    ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  }
}

void RefuseNewPrivileges() {
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
}

std::optional<Failure> BecomeUnprivileged(std::initializer_list<int> kept) {
  if (!kIsInstrumented && ::geteuid() == 0) {
    const User user = UnprivilegedUser();
    ::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0);
    const bool changed = ::setgroups(0, nullptr) == 0 &&
                         ::setresgid(user.group, user.group, user.group) == 0 &&
                         ::setresuid(user.user, user.user, user.user) == 0;
    if (!changed && !IsRootOfANamespace(errno)) {
      return Failure{ExitStatus::kFailed,
                     fmt::format("cannot become user {}: {}", user.user, std::strerror(errno))};
    }
  }
  KeepCapabilities(kept);
  return std::nullopt;
}

void AllowReadingFramesOnly(NewFiles files) {
  if (kIsInstrumented) {
    return;
  }
  RefuseNewPrivileges();
  const Filter filter(seccomp_init(SCMP_ACT_KILL_PROCESS), &seccomp_release);
  if (filter == nullptr) {
    return;
  }
  bool all = true;
  for (const char* name : kAlwaysNeeded) {
    all &= Allow(filter.get(), name);
  }
  if (files == NewFiles::kAllowed) {
    for (const char* name : kNeededForFiles) {
      all &= Allow(filter.get(), name);
    }
  }
  if (AllowWithArguments(filter.get(), files) && all) {
    seccomp_load(filter.get());
  }
}

}  // namespace ipplay
