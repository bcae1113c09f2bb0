// SPDX-License-Identifier: MIT
// The two threads that all channels share: one feeds them, one starts them and keeps the rights for
// that.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

#include "host/library/adapters.h"

namespace ipplay {

class Keeper {
 public:
  using Time = std::chrono::nanoseconds;  // points in time are on CLOCK_MONOTONIC

  explicit Keeper(const std::vector<Adapter>& adapters);
  Keeper(const Keeper&) = delete;
  Keeper& operator=(const Keeper&) = delete;
  // What was planned and has not begun is left out.
  ~Keeper();

  const std::vector<Adapter>& Adapters() const { return adapters_; }

  // Runs `task` on the starting thread and waits for its result.
  template <typename Task>
  auto Do(Task task) -> std::invoke_result_t<Task> {
    if (std::this_thread::get_id() == starting_.get_id()) {
      return task();
    }
    std::packaged_task<std::invoke_result_t<Task>()> job(std::move(task));
    auto result = job.get_future();
    At(Time(0), [&job] { job(); });
    return result.get();
  }
  // The same at that time or soon after it, without waiting.
  void At(Time time, std::function<void()> task);

  // Calls `serve` on the feeding thread, over and over while it returns true; it never blocks.
  void Feed(std::function<bool()> serve);

 private:
  // What is to be done at a time; in the order of times, and of equal ones in that of adding.
  template <typename Entry>
  struct Schedule {
    std::mutex mutex;  // guards the rest
    std::condition_variable changed;
    std::multimap<Time, Entry> entries;
    bool ends = false;

    void Add(Time time, Entry entry);
    // Waits for the next entry that is due; none at the end.
    std::optional<Entry> Take();
    void End();
  };

  void RunStarting();
  void RunFeeding();

  const std::vector<Adapter>& adapters_;
  Schedule<std::function<void()>> tasks_;
  Schedule<std::function<bool()>> fed_;
  std::thread starting_;
  std::thread feeding_;
};

}  // namespace ipplay
