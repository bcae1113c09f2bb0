// SPDX-License-Identifier: MIT
#include "host/measure/figures/reorder_window.h"

#include <bit>

namespace ipplay::measure {

void ReorderWindow::Add(std::uint16_t number, SequenceEvent event, const Payload& payload) {
  switch (event) {
    case SequenceEvent::kDuplicate:
      return;
    case SequenceEvent::kFirst:
    case SequenceEvent::kRestart:
    case SequenceEvent::kStray: {
      Flush();
      const bool follows = event == SequenceEvent::kFirst || number == next_;
      next_ = number;
      Pass(payload, !follows);
      return;
    }
    case SequenceEvent::kInOrder:
      if (kept_ == 0) {
        const bool follows = number == next_;
        next_ = number;
        Pass(payload, !follows);
        return;
      }
      break;
    case SequenceEvent::kLate:
      if (static_cast<std::int16_t>(number - next_) < 0) {
        return;
      }
      ++repaired_;
      break;
    case SequenceEvent::kGap:
      break;
  }
  while (kept_ > 0 && (static_cast<std::uint16_t>(number - next_) >= limits_.packets ||
                       HasWaitedEnough(payload.arrival_ns))) {
    SkipMissing();
  }
  if (static_cast<std::uint16_t>(number - next_) >= limits_.packets) {
    next_ = number;
    Pass(payload, true);
  } else if (number == next_) {
    Pass(payload, false);
    PassKept(false);
  } else {
    Keep(number, payload);
  }
}

void ReorderWindow::Keep(std::uint16_t number, const Payload& payload) {
  if (slots_.empty()) {
    slots_.resize(std::bit_ceil(limits_.packets));
  }
  Slot& slot = At(number);
  if (kept_++ == 0) {
    waiting_since_ns_ = payload.arrival_ns;
  }
  slot.used = true;
  slot.arrival_ns = payload.arrival_ns;
  slot.unread_bytes = payload.unread_bytes;
  slot.bytes.assign(payload.bytes.begin(), payload.bytes.end());
}

void ReorderWindow::Pass(Payload payload, bool after_gap) {
  payload.number = next_++;
  deliver_(payload, after_gap);
}

// All that stand one behind the other from the next number on.
void ReorderWindow::PassKept(bool after_gap) {
  while (kept_ > 0 && At(next_).used) {
    Slot& slot = At(next_);
    slot.used = false;
    --kept_;
    Pass({slot.bytes, slot.arrival_ns, slot.unread_bytes}, after_gap);
    after_gap = false;
    if (kept_ > 0) {
      waiting_since_ns_ = slot.arrival_ns;
    }
  }
}

// Gives up the numbers that are missing in front.
void ReorderWindow::SkipMissing() {
  while (!At(next_).used) {
    ++next_;
  }
  PassKept(true);
}

bool ReorderWindow::HasWaitedEnough(std::int64_t now_ns) const {
  return now_ns - waiting_since_ns_ > limits_.longest_wait_ns;
}

void ReorderWindow::GiveUp() {
  slots_ = {};
  kept_ = 0;
}

void ReorderWindow::Flush() {
  while (kept_ > 0) {
    SkipMissing();
  }
}

}  // namespace ipplay::measure
