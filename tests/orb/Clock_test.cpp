// The clock and the activity loop that calls its observers.
#include "Orb/Clock.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "orb/support/OrbTest.h"

namespace {

using OrbTest::Alarm;
using ClockTest = OrbTest::LoopTest;
using ActivityManagerTest = OrbTest::LoopTest;
constexpr Orb::Seconds never = Orb::Clock::never;

TEST_F(ClockTest, ObserverFiresOnceFromTheLoopAtItsLatestWakeTime) {
  manager->manualTimeIs(1000);
  auto alarm = newAlarm(), other = newAlarm();
  alarm->action = [](Alarm& self) {
    EXPECT_EQ(self.timeMin(), never);
    EXPECT_EQ(Orb::System::currentTime(), 1010);
  };
  alarm->timeMinIs(1030);
  alarm->timeMinIs(1010);  // replaces the later one
  other->timeMinIs(1020);
  EXPECT_EQ(manager->liveHandles(), 1u);  // one timer for the clock
  manager->timeIs(1010);
  EXPECT_EQ(alarm->calls, 0);  // only the loop calls observers
  EXPECT_TRUE(manager->runOnce(0));
  other->timeMinIs(1040);  // replaces the earlier one
  manager->timeIs(1039);
  EXPECT_FALSE(manager->runOnce(0));
  other->timeMinIs(never);  // disarms and releases the timer
  manager->timeIs(1e9);
  EXPECT_FALSE(manager->runOnce(0));
  EXPECT_EQ(alarm->calls + other->calls, 1);
  EXPECT_EQ(manager->liveHandles(), 0u);
}

TEST_F(ClockTest, ObserversGoneBeforeTheirTimeOrKilledInsideOnTimeNeverFire) {
  manager->manualTimeIs(1000);
  auto destroyed = newAlarm(), disconnected = newAlarm(), unregistered = newAlarm();
  auto killer = newAlarm(), victim = newAlarm(), thrower = newAlarm(), bystander = newAlarm();
  victim->action = [](Alarm&) { ADD_FAILURE() << "a destroyed observer was called"; };
  killer->action = [&](Alarm&) {
    victim = nullptr;
    killer = nullptr;  // the last reference: destroys the observer being called
  };
  thrower->action = [](Alarm&) { throw std::runtime_error("alarm bell broken"); };
  for (auto* a : {destroyed.ptr(), disconnected.ptr(), unregistered.ptr(), killer.ptr(),
                  victim.ptr(), thrower.ptr(), bystander.ptr()}) {
    a->timeMinIs(1010);
  }
  destroyed = nullptr;
  disconnected->notifierIs(nullptr);
  unregistered->isRegisteredNotifieeIs(false);
  traceFaults();
  manager->timeIs(1010);
  manager->runOnce(0);
  manager->runOnce(0);
  EXPECT_FALSE(killer);
  EXPECT_EQ(bystander->calls, 1);
  EXPECT_EQ(disconnected->calls + unregistered->calls, 0);
  EXPECT_CONTAINS(traced.str(), "alarm bell broken");  // traced; the loop went on
  unregistered->isRegisteredNotifieeIs(true);          // replays the armed observer, due by now
  manager->runOnce(0);
  EXPECT_EQ(unregistered->calls, 1);
}

TEST_F(ActivityManagerTest, StopEndsTheRunningLoopOnlyAndRunningInsideACallbackIsRefused) {
  auto alarm = newAlarm();
  alarm->action = [&](Alarm& self) {
    Orb::Expect expect;
    expect.add(Orb::ExceptionId::internal);
    EXPECT_THROW(manager->runOnce(0), Orb::InternalException);
    if (self.calls == 3) manager->stop();
    self.timeMinIs(Orb::System::currentTime() - 1);  // once per turn
  };
  alarm->timeMinIs(Orb::System::currentTime() - 1);
  EXPECT_TRUE(manager->runOnce(0));  // a past wake time fires on the next turn
  EXPECT_EQ(alarm->calls, 1);
  EXPECT_FALSE(manager->runUntil([] { return false; }, 60.0));
  EXPECT_EQ(alarm->calls, 3);
  manager->stop();  // outside runUntil: does not end the next one
  EXPECT_TRUE(manager->runUntil([&] { return alarm->calls == 5; }, 60.0));
  alarm->timeMinIs(never);
}

}  // namespace
