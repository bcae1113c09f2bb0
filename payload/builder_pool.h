// SPDX-License-Identifier: MIT
// The threads that build the frames of all playouts.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "payload/datagram_builder.h"
#include "platform/mutex.h"
#include "platform/request_stack.h"
#include "platform/signal.h"
#include "transmit/osa_thread.h"

namespace ipplayout {

// One of them. Builders that are requested take turns of a few frames.
class BuilderThread final : public OsaThread {
 public:
  BuilderThread();
  ~BuilderThread() override;

  // Has a builder build what it can. Any thread; takes no lock.
  void Request(DatagramBuilder& builder);
  // Returns when the builder is in no turn and will get none, whoever requests it.
  void Detach(DatagramBuilder& builder);

  void Stop() override;

 private:
  void Run() override;
  void TakeTurn(DatagramBuilder& builder);

  platform::RequestStack requests_;
  platform::Signal requested_;
  platform::Mutex detach_mutex_;
  platform::ConditionVariable detached_;
  DatagramBuilder* leaving_ IPPLAYOUT_GUARDED_BY(detach_mutex_) = nullptr;
  std::atomic<bool> has_leaving_{false};
};

// Threads are started with the first playout that needs them.
class BuilderPool {
 public:
  // More do not help: two already build some millions of frames in a second.
  static constexpr std::size_t kThreads = 2;

  // The thread with the fewest builders; null when the system refuses one.
  BuilderThread* Enter();
  // Of the builder that entered and was detached.
  void Leave(const BuilderThread* thread);

 private:
  struct Worker {
    std::unique_ptr<BuilderThread> thread;
    std::size_t builders = 0;
  };

  platform::Mutex mutex_;
  std::vector<Worker> workers_ IPPLAYOUT_GUARDED_BY(mutex_);
};

}  // namespace ipplayout
