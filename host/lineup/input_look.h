// SPDX-License-Identifier: MIT
// Waits for an input that comes at its own pace and looks at it, on a thread of its own.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "host/base/event.h"
#include "host/base/result.h"
#include "host/play/play_options.h"
#include "host/play/preparation.h"

namespace ipplay {

class InputLook {
 public:
  // `options` outlives this; `came` is called on that thread at its end, also where it was
  // given up.
  InputLook(const PlayOptions& options, std::function<void()> came);
  InputLook(const InputLook&) = delete;
  InputLook& operator=(const InputLook&) = delete;
  // Gives up what has not come.
  ~InputLook();

  // Once it came. No read of the input goes on once the event is set.
  Result<Opened> Take();
  std::unique_ptr<Event> TakeStop() { return std::move(stop_reading_); }

 private:
  void Run();

  const PlayOptions& options_;
  const std::function<void()> came_;
  std::unique_ptr<Event> stop_reading_ = std::make_unique<Event>();
  std::optional<Result<Opened>> opened_;  // the thread's, until it is joined
  std::thread thread_;
};

}  // namespace ipplay
