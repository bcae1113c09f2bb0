// The program's own pthread_create, which the library's calls find first: each new thread joins the
// workers before it begins, with all signals still blocked, as the library starts it.
#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#include <memory>
#include <new>

#include "host/worker_rights.h"

namespace {

using Function = void* (*)(void*);

struct Begin {
  Function function;
  void* argument;
};

void* Run(void* opaque) {
  const Begin begin = *std::unique_ptr<Begin>(static_cast<Begin*>(opaque));
  ipplay::JoinWorkers();
  return begin.function(begin.argument);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int pthread_create(
    pthread_t* thread, const pthread_attr_t* attributes, Function function, void* argument) {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, Function, void*);
  static const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  std::unique_ptr<Begin> begin(new (std::nothrow) Begin{function, argument});
  if (begin == nullptr) return EAGAIN;
  const int result = create(thread, attributes, Run, begin.get());
  if (result == 0) static_cast<void>(begin.release());  // the thread has it
  return result;
}
