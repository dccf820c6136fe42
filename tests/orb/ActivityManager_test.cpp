#include "Orb/ActivityManager.h"

#include <gtest/gtest.h>

#include <chrono>

#include "Orb/FileDescriptor.h"
#include "orb/support/OrbTest.h"

namespace {

using OrbTest::Alarm;
using ActivityManagerTest = OrbTest::LoopTest;
using std::chrono::steady_clock;

TEST_F(ActivityManagerTest, TurnsEndOnceAnObserverWasCalledAndRunningAgainInsideIsRefused) {
  auto alarm = newAlarm();
  alarm->action = [&](Alarm&) {
    Orb::Expect expect;
    expect.add(Orb::ExceptionId::internal);
    EXPECT_THROW(manager->runOnce(0), Orb::InternalException);
  };
  alarm->timeMinIs(Orb::System::currentTime() - 1);
  const auto start = steady_clock::now();
  EXPECT_TRUE(manager->runOnce(30.0));  // returns instead of waiting out its time
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(15));
  EXPECT_EQ(alarm->calls, 1);

  alarm->action = [&](Alarm& self) {  // once per turn, stopping at the third
    if (self.calls == 3) manager->stop();
    self.timeMinIs(Orb::System::currentTime() - 1);
  };
  alarm->timeMinIs(Orb::System::currentTime() - 1);
  EXPECT_FALSE(manager->runUntil([] { return false; }, 2.0));
  EXPECT_EQ(alarm->calls, 3);
  manager->stop();  // outside runUntil: does not end the next one
  EXPECT_TRUE(manager->runUntil([&] { return alarm->calls == 5; }, 2.0));
  alarm->timeMinIs(Orb::Clock::never);
}

TEST_F(ActivityManagerTest, WaitsEndOnTimeWhileHandlesAreIdle) {
  OrbTest::SocketPair pair;
  auto fd = Orb::allocate<Orb::FileDescriptor>(Orb::Name());
  fd->descriptorIs(pair.fd[0]);
  EXPECT_EQ(manager->liveHandles(), 0u);  // nothing to watch for yet
  fd->notifyOnReadableIs(true);
  auto alarm = newAlarm();
  alarm->timeMinIs(Orb::System::currentTime() + 3600);
  EXPECT_FALSE(manager->runOnce(0.02));
  int evaluations = 0;
  const auto start = steady_clock::now();
  EXPECT_FALSE(manager->runUntil([&] { return ++evaluations < 0; }, 0.05));
  EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(49));
  EXPECT_GE(evaluations, 2);  // once before the first turn, once after the last

  alarm->timeMinIs(Orb::Clock::never);
  fd->descriptorIs(-1);
  EXPECT_EQ(manager->liveHandles(), 2u);  // closing: freed by the loop
  manager->runOnce(0);
  EXPECT_EQ(manager->liveHandles(), 0u);
}

}  // namespace
