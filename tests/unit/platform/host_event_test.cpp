// SPDX-License-Identifier: MIT
#include "platform/host_event.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
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

TEST(HostEventTest, ADuplicateOutlivesTheHostsDescriptor) {
  const int event = eventfd(0, EFD_NONBLOCK);
  const int reader = dup(event);
  const auto other = OwnedHostEvent::Create();
  const auto own = OwnedHostEvent::Duplicate(event);
  ASSERT_TRUE(own);
  EXPECT_TRUE(own->IsSame(event) && !own->IsSame(other->Handle()));
  EXPECT_TRUE(!own->IsBefore(event) && own->IsBefore(other->Handle()) != other->IsBefore(event));
  close(event);
  SignalHostEvent(own->Handle());
  eventfd_t value = 0;
  EXPECT_EQ(eventfd_read(reader, &value), 0);
  close(reader);
  EXPECT_FALSE(OwnedHostEvent::Duplicate(event));
}

}  // namespace
}  // namespace ipplayout::platform
