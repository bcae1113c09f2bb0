// SPDX-License-Identifier: MIT
#include "payload/builder_pool.h"

#include <algorithm>

namespace ipplayout {
namespace {

constexpr int kFramesPerTurn = 32;

}  // namespace

BuilderThread::BuilderThread() : OsaThread("DatagramBuilder", 0, OsaThreadPriority::Normal()) {
  StartSilently();
}

BuilderThread::~BuilderThread() {
  Stop();
  Join();
}

void BuilderThread::Stop() {
  OsaThread::Stop();
  requested_.Set();
}

void BuilderThread::Request(DatagramBuilder& builder) {
  if (requests_.Push(builder)) {
    requested_.Set();
  }
}

void BuilderThread::Detach(DatagramBuilder& builder) {
  const platform::MutexLock lock(detach_mutex_);
  while (leaving_ != nullptr) {
    detached_.Wait(detach_mutex_);
  }
  leaving_ = &builder;
  has_leaving_.store(true);
  Request(builder);
  while (leaving_ == &builder) {
    detached_.Wait(detach_mutex_);
  }
}

void BuilderThread::Run() {
  platform::GiveUpCapabilities();
  while (!StopRequested()) {
    requested_.Reset();
    platform::RequestNode* node = requests_.TakeAll();
    if (node == nullptr && !StopRequested()) {
      requested_.Wait();
    }
    while (node != nullptr) {
      auto& builder = static_cast<DatagramBuilder&>(*node);
      node = node->next;
      TakeTurn(builder);
    }
  }
}

void BuilderThread::TakeTurn(DatagramBuilder& builder) {
  builder.requested.store(false);
  if (has_leaving_.load()) {
    const platform::MutexLock lock(detach_mutex_);
    if (leaving_ == &builder) {
      // It stays requested: no request enters it any more. One that has entered meanwhile is taken
      // first.
      if (!builder.requested.exchange(true)) {
        leaving_ = nullptr;
        has_leaving_.store(false);
        detached_.NotifyAll();
      }
      return;
    }
  }
  if (builder.Build(kFramesPerTurn) == DatagramBuilder::Progress::kMore) {
    Request(builder);
  }
}

BuilderThread* BuilderPool::Enter() {
  const platform::MutexLock lock(mutex_);
  if (workers_.size() < kThreads) {
    auto thread = std::make_unique<BuilderThread>();
    if (thread->Start()) {
      thread->SetPriority(OsaThreadPriority::AboveNormal());
      workers_.push_back({std::move(thread), 0});
    }
  }
  const auto least =
      std::min_element(workers_.begin(), workers_.end(),
                       [](const Worker& a, const Worker& b) { return a.builders < b.builders; });
  if (least == workers_.end()) {
    return nullptr;
  }
  ++least->builders;
  return least->thread.get();
}

void BuilderPool::Leave(const BuilderThread* thread) {
  const platform::MutexLock lock(mutex_);
  for (Worker& worker : workers_) {
    worker.builders -= worker.thread.get() == thread ? 1U : 0U;
  }
}

}  // namespace ipplayout
