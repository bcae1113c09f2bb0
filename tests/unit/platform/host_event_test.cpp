// SPDX-License-Identifier: MIT
#include "platform/host_event.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <future>

#include "tests/support/blocked_call.h"

namespace ipplayout::platform {
namespace {

TEST(HostEventTest, EitherEventEndsTheWaitAndNoEventDoesNot) {
  auto unset = OwnedHostEvent::Create();
  constexpr EventHandle kClosed = 900;  // no event made here gets this number
  for (const EventHandle other : {unset->Handle(), kNullEvent, kInvalidEvent, kClosed}) {
    for (const bool swapped : {false, true}) {
      auto event = OwnedHostEvent::Create();
      const EventHandle handles[] = {event->Handle(), other};
      auto wait = OnAnotherThread([&] { WaitForEither(handles[swapped], handles[!swapped]); });
      EXPECT_TRUE(Blocks(wait));
      SignalHostEvent(event->Handle());
      EXPECT_TRUE(Returns(wait));
    }
  }
}

TEST(HostEventTest, DescriptorZeroIsNotGivenAway) {
  const int input = dup(0);
  close(0);
  {
    const auto event = OwnedHostEvent::Create();
    EXPECT_TRUE(event && event->Handle() > 0);
    EXPECT_EQ(dup2(input, 0), 0);
  }
  close(input);
}

}  // namespace
}  // namespace ipplayout::platform
