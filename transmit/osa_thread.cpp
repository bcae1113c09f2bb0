// SPDX-License-Identifier: MIT
#include "transmit/osa_thread.h"

#include <cstring>
#include <utility>

#include "transmit/trace_log.h"

namespace ipplayout {

OsaThread::OsaThread(const char* name, std::uint32_t stack_size, OsaThreadPriority priority)
    : stack_size_(stack_size), priority_(priority) {
  std::strncpy(name_.data(), name, kNameSize - 1);
}

bool OsaThread::Start() {
  Join();
  stop_requested_.store(false);
  std::uint32_t id = 0;
  {
    const platform::MutexLock lock(mutex_);
    thread_ = platform::NativeThread::Start(Name(), stack_size_, &Entry, this);
    if (thread_ == nullptr) {
      return false;
    }
    thread_->SetPriority(priority_.Level(), real_time_);
    id = thread_->Id();
  }
  if (is_traced_) {
    OsaTrace("OsaThread::Start, name = %s, id = %u\n", Name(), id);
  }
  return true;
}

void OsaThread::Entry(void* self) {
  static_cast<OsaThread*>(self)->Run();
}

void OsaThread::Join() {
  std::unique_ptr<platform::NativeThread> ended;
  {
    const platform::MutexLock lock(mutex_);
    ended = std::move(thread_);
  }
  // Joined without the lock, which the worker may still want.
}

OsaThreadPriority OsaThread::SetPriority(OsaThreadPriority priority) {
  const platform::MutexLock lock(mutex_);
  const OsaThreadPriority previous = priority_;
  if (thread_ != nullptr) {
    thread_->SetPriority(priority.Level(), real_time_);
    priority_ = priority;
  }
  return previous;
}

}  // namespace ipplayout
