#include "platform/host_event.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <future>

#include "tests/support/blocked_call.h"

namespace ipplayout::platform {
namespace {

TEST(HostEventTest, EitherEventEndsTheWaitAndNeitherIsRead) {
  auto first = OwnedHostEvent::Create();
  auto second = OwnedHostEvent::Create();
  ASSERT_TRUE(first && second);
  const int closed = eventfd(0, 0);
  close(closed);
  for (const EventHandle other :
       {second->Handle(), kNullEvent, kInvalidEvent, EventHandle{closed}}) {
    for (const bool swapped : {false, true}) {
      auto event = OwnedHostEvent::Create();
      auto wait = OnAnotherThread([&] {
        swapped ? WaitForEither(other, event->Handle()) : WaitForEither(event->Handle(), other);
      });
      EXPECT_TRUE(Blocks(wait));
      SignalHostEvent(event->Handle());
      EXPECT_TRUE(Returns(wait));
      eventfd_t count = 0;
      EXPECT_EQ(eventfd_read(static_cast<int>(event->Handle()), &count), 0);
      EXPECT_EQ(count, 1U);
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
