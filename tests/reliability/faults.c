// SPDX-License-Identifier: MIT
// Preloaded below the library: refuses its system calls and its memory when a test says so, counts
// the memory that it holds, and shifts the time of day.
//
// Memory and thread creation concern "the library" only: the calls of a thread inside fault_run,
// and of the threads that such a thread has created. The rest concerns the whole process.
#include <dlfcn.h>
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>

#define EXPORTED __attribute__((visibility("default")))

// glibc's own, under the names that stay when malloc is replaced.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

static struct fault {
  const char* call;
  atomic_long calls, first, count, refused;
  atomic_llong until_ns;
  atomic_int error;
} faults[] = {{.call = "memory"}, {.call = "thread"},     {.call = "eventfd"}, {.call = "socket"},
              {.call = "timer"},  {.call = "sendmmsg"},   {.call = "sendto"},  {.call = "recvmsg"},
              {.call = "ioctl"},  {.call = "setsockopt"}, {.call = "short"},   {.call = "xdp"}};
enum {
  MEMORY,
  THREAD,
  EVENTFD,
  SOCKET,
  TIMER,
  SENDMMSG,
  SENDTO,
  RECVMSG,
  IOCTL,
  SETSOCKOPT,
  SHORT,
  XDP
};

static atomic_long held;  // blocks, and bytes of mappings
static atomic_long clock_shift;
static _Thread_local bool in_library __attribute__((tls_model("initial-exec")));

// A count: all calls until this long after the first that fails, however often the machine lets the
// library try.
#define A_WHILE LONG_MAX
enum { A_WHILE_NS = 100000000 };

static long long monotonic_ns(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}

// From the `first` call after this one on, `count` calls fail with `error`.
EXPORTED void fault_set(const char* call, long first, long count, int error) {
  for (size_t i = 0; i < sizeof faults / sizeof *faults; ++i) {
    if (strcmp(faults[i].call, call) == 0) {
      faults[i].count = 0;
      faults[i].calls = faults[i].refused = 0;
      faults[i].until_ns = 0;
      faults[i].first = first;
      faults[i].error = error;
      faults[i].count = count;
      return;
    }
  }
  abort();
}

EXPORTED long fault_refused(const char* call) {
  for (size_t i = 0; i < sizeof faults / sizeof *faults; ++i) {
    if (strcmp(faults[i].call, call) == 0) {
      return faults[i].refused;
    }
  }
  abort();
}

EXPORTED long fault_run(long (*function)(long, long, long, long), long a, long b, long c, long d) {
  in_library = true;
  const long result = function(a, b, c, d);
  in_library = false;
  return result;
}

EXPORTED long fault_held(void) {
  return held;
}

EXPORTED void fault_shift_clock(long seconds) {
  clock_shift = seconds;
}

static bool refuse(int call) {
  struct fault* fault = &faults[call];
  if (fault->count == 0) {
    return false;
  }
  const long number = fault->calls++;
  if (number < fault->first || number - fault->first >= fault->count) {
    return false;
  }
  if (fault->count == A_WHILE) {
    const long long now_ns = monotonic_ns();
    long long unset = 0;
    atomic_compare_exchange_strong(&fault->until_ns, &unset, now_ns + A_WHILE_NS);
    if (now_ns > fault->until_ns) {
      return false;
    }
  }
  ++fault->refused;
  errno = fault->error;
  return true;
}

static bool no_memory(void) {
  return in_library && refuse(MEMORY);
}

static void* counted(void* block) {
  if (in_library && block != NULL) {
    ++held;
  }
  return block;
}

EXPORTED void* malloc(size_t size) {
  return no_memory() ? NULL : counted(__libc_malloc(size));
}
EXPORTED void* calloc(size_t count, size_t size) {
  return no_memory() ? NULL : counted(__libc_calloc(count, size));
}
EXPORTED void free(void* block) {
  if (in_library && block != NULL) {
    --held;
  }
  const int kept = errno;
  __libc_free(block);
  errno = kept;
}
EXPORTED void* realloc(void* block, size_t size) {
  if (no_memory()) {
    return NULL;
  }
  if (in_library && block != NULL) {
    --held;
  }
  return counted(__libc_realloc(block, size));
}
EXPORTED void* memalign(size_t alignment, size_t size) {
  return no_memory() ? NULL : counted(__libc_memalign(alignment, size));
}
EXPORTED void* aligned_alloc(size_t alignment, size_t size) {
  return memalign(alignment, size);
}
EXPORTED int posix_memalign(void** block, size_t alignment, size_t size) {
  *block = memalign(alignment, size);
  return *block == NULL ? ENOMEM : 0;
}

// Defines `real` as the function of that name that this one stands before.
#define REAL(name)                            \
  static __typeof__(&name) real;              \
  if (real == NULL) {                         \
    *(void**)&real = dlsym(RTLD_NEXT, #name); \
  }

EXPORTED void* mmap(void* address, size_t size, int access, int flags, int file, off_t offset) {
  REAL(mmap)
  if (no_memory()) {
    return MAP_FAILED;
  }
  void* block = real(address, size, access, flags, file, offset);
  if (in_library && block != MAP_FAILED) {
    held += (long)size;
  }
  return block;
}
EXPORTED int munmap(void* address, size_t size) {
  REAL(munmap)
  const int result = real(address, size);
  if (in_library && result == 0) {
    held -= (long)size;
  }
  return result;
}

struct entry {
  void* (*function)(void*);
  void* argument;
};

static void* begin_thread(void* opaque) {
  const struct entry entry = *(struct entry*)opaque;
  __libc_free(opaque);
  in_library = true;
  return entry.function(entry.argument);
}

EXPORTED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                            void* (*function)(void*), void* argument) {
  REAL(pthread_create)
  if (!in_library) {
    return real(thread, attributes, function, argument);
  }
  if (refuse(THREAD)) {
    return errno;
  }
  struct entry* entry = __libc_malloc(sizeof *entry);
  *entry = (struct entry){function, argument};
  // What the system keeps for its threads, and uses again, is not the library's.
  in_library = false;
  const int result = real(thread, attributes, begin_thread, entry);
  in_library = true;
  return result;
}

EXPORTED int pthread_join(pthread_t thread, void** value) {
  REAL(pthread_join)
  const bool library = in_library;
  in_library = false;
  const int result = real(thread, value);
  in_library = library;
  return result;
}

EXPORTED int eventfd(unsigned count, int flags) {
  REAL(eventfd)
  return refuse(EVENTFD) ? -1 : real(count, flags);
}
EXPORTED int socket(int domain, int type, int protocol) {
  REAL(socket)
  return refuse(SOCKET) || (domain == AF_XDP && refuse(XDP)) ? -1 : real(domain, type, protocol);
}
EXPORTED int setsockopt(int file, int level, int name, const void* value, socklen_t size) {
  REAL(setsockopt)
  return refuse(SETSOCKOPT) ? -1 : real(file, level, name, value, size);
}
EXPORTED ssize_t sendto(int file, const void* data, size_t size, int flags,
                        const struct sockaddr* to, socklen_t to_size) {
  REAL(sendto)
  return refuse(SENDTO) ? -1 : real(file, data, size, flags, to, to_size);
}
EXPORTED ssize_t recvmsg(int file, struct msghdr* message, int flags) {
  REAL(recvmsg)
  return refuse(RECVMSG) ? -1 : real(file, message, flags);
}
EXPORTED int ioctl(int file, unsigned long request, ...) {
  REAL(ioctl)
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return refuse(IOCTL) ? -1 : real(file, request, argument);
}
EXPORTED int prctl(int option, ...) {
  REAL(prctl)
  va_list arguments;
  va_start(arguments, option);
  unsigned long values[4];
  for (int i = 0; i < 4; ++i) {
    values[i] = va_arg(arguments, unsigned long);
  }
  va_end(arguments);
  return option == PR_SET_TIMERSLACK && refuse(TIMER)
             ? -1
             : real(option, values[0], values[1], values[2], values[3]);
}
EXPORTED int sendmmsg(int file, struct mmsghdr* messages, unsigned count, int flags) {
  REAL(sendmmsg)
  if (refuse(SENDMMSG)) {
    return -1;
  }
  return real(file, messages, count > 1 && refuse(SHORT) ? 1 : count, flags);
}

EXPORTED int clock_gettime(clockid_t clock, struct timespec* time) {
  REAL(clock_gettime)
  const int result = real(clock, time);
  if (result == 0 && clock == CLOCK_REALTIME) {
    time->tv_sec += clock_shift;
  }
  return result;
}
EXPORTED int gettimeofday(struct timeval* restrict now, void* restrict zone) {
  REAL(gettimeofday)
  const int result = real(now, zone);
  now->tv_sec += clock_shift;
  return result;
}
EXPORTED time_t time(time_t* out) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (out != NULL) {
    *out = now.tv_sec;
  }
  return now.tv_sec;
}
