#include "Orb/Clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "Orb/ActivityManager.h"
#include "Orb/Exception.h"
#include "Orb/Trace.h"

namespace {

using Orb::Seconds;
constexpr Seconds infinity = std::numeric_limits<Seconds>::infinity();

// Counts its calls and runs an optional action inside onTime().
class Alarm : public Orb::Clock::NotifieeConst {
 public:
  int calls = 0;
  Seconds timeMinDuringCall = 0;
  Seconds currentTimeDuringCall = 0;
  std::function<void(Alarm&)> action;

  void onTime() override {
    ++calls;
    timeMinDuringCall = timeMin();
    currentTimeDuringCall = Orb::System::currentTime();
    if (action) action(*this);
  }
};

// Counts calls in a counter it does not own, so that the count survives the observer.
class CountingAlarm : public Orb::Clock::NotifieeConst {
 public:
  explicit CountingAlarm(int* calls) : calls_(calls) {}
  void onTime() override { ++*calls_; }

 private:
  int* calls_;
};

class ClockTest : public ::testing::Test {
 protected:
  void TearDown() override {
    manager->realTimeIs();
    EXPECT_TRUE(manager->runUntil([this] { return manager->liveHandles() == 0; }, 0.5));
  }

  Orb::Ptr<Alarm> newAlarm() {
    auto alarm = Orb::allocate<Alarm>();
    alarm->notifierIs(clock);
    return alarm;
  }

  Orb::ActivityManager* manager = Orb::activityManager();
  Orb::Ptr<Orb::Clock> clock = manager->clock();
};

TEST_F(ClockTest, ObserverFiresOnceWhenManualTimeReachesItsWakeTime) {
  manager->manualTimeIs(1000);
  auto alarm = newAlarm();
  alarm->timeMinIs(1010);
  EXPECT_EQ(manager->liveHandles(), 1u);

  EXPECT_FALSE(manager->runOnce(0));
  manager->timeIs(1009.999);
  EXPECT_FALSE(manager->runOnce(0));
  EXPECT_EQ(alarm->calls, 0);

  manager->timeIs(1010);
  EXPECT_EQ(Orb::System::currentTime(), 1010);
  EXPECT_EQ(clock->now(), 1010);
  EXPECT_EQ(alarm->calls, 0);  // only the loop calls observers
  EXPECT_TRUE(manager->runOnce(0));
  EXPECT_EQ(alarm->calls, 1);
  EXPECT_EQ(alarm->timeMinDuringCall, infinity);
  EXPECT_EQ(alarm->currentTimeDuringCall, 1010);
  EXPECT_EQ(alarm->timeMin(), infinity);

  manager->timeIs(5000);
  EXPECT_FALSE(manager->runOnce(0));
  EXPECT_EQ(alarm->calls, 1);
}

TEST_F(ClockTest, NewWakeTimeReplacesThePreviousOne) {
  manager->manualTimeIs(1000);
  auto alarm = newAlarm();
  alarm->timeMinIs(1010);
  alarm->timeMinIs(1020);
  manager->timeIs(1015);
  manager->runOnce(0);
  EXPECT_EQ(alarm->calls, 0);
  manager->timeIs(1020);
  manager->runOnce(0);
  EXPECT_EQ(alarm->calls, 1);

  alarm->timeMinIs(1040);
  alarm->timeMinIs(1030);  // earlier than the one it replaces
  manager->timeIs(1030);
  manager->runOnce(0);
  EXPECT_EQ(alarm->calls, 2);
}

TEST_F(ClockTest, InfinityDisarmsAndReleasesTheTimer) {
  manager->manualTimeIs(1000);
  auto alarm = newAlarm();
  alarm->timeMinIs(1010);
  alarm->timeMinIs(infinity);
  manager->timeIs(1e9);
  EXPECT_FALSE(manager->runOnce(0));
  EXPECT_EQ(alarm->calls, 0);
  manager->runOnce(0);
  EXPECT_EQ(manager->liveHandles(), 0u);
}

TEST_F(ClockTest, PastWakeTimeFiresOnNextTurn) {
  auto alarm = newAlarm();
  alarm->timeMinIs(Orb::System::currentTime() - 10);
  EXPECT_EQ(alarm->calls, 0);
  EXPECT_TRUE(manager->runOnce(0));
  EXPECT_EQ(alarm->calls, 1);
}

TEST_F(ClockTest, FutureWakeTimeOnRealTimeFiresNoEarlierThanIt) {
  auto alarm = newAlarm();
  const Seconds wake = Orb::System::currentTime() + 0.02;
  alarm->timeMinIs(wake);
  EXPECT_TRUE(manager->runUntil([&] { return alarm->calls == 1; }, 5.0));
  EXPECT_GE(alarm->currentTimeDuringCall, wake);
}

TEST_F(ClockTest, ObserversOnOneClockKeepIndependentWakeTimes) {
  manager->manualTimeIs(1000);
  auto late = newAlarm();
  auto early = newAlarm();
  late->timeMinIs(1010);
  early->timeMinIs(1005);

  manager->timeIs(1005);
  manager->runOnce(0);
  EXPECT_EQ(early->calls, 1);
  EXPECT_EQ(late->calls, 0);
  EXPECT_EQ(late->timeMin(), 1010);

  early->timeMinIs(1020);
  manager->timeIs(1010);
  manager->runOnce(0);
  EXPECT_EQ(early->calls, 1);
  EXPECT_EQ(late->calls, 1);

  late->timeMinIs(1020);
  manager->timeIs(1020);
  manager->runOnce(0);
  EXPECT_EQ(early->calls, 2);
  EXPECT_EQ(late->calls, 2);
}

TEST_F(ClockTest, ObserverGoneBeforeItsTimeNeverFires) {
  manager->manualTimeIs(1000);
  int destroyedCalls = 0, disconnectedCalls = 0, unregisteredCalls = 0;
  auto destroyed = Orb::allocate<CountingAlarm>(&destroyedCalls);
  auto disconnected = Orb::allocate<CountingAlarm>(&disconnectedCalls);
  auto unregistered = Orb::allocate<CountingAlarm>(&unregisteredCalls);
  for (auto* alarm : {destroyed.ptr(), disconnected.ptr(), unregistered.ptr()}) {
    alarm->notifierIs(clock);
    alarm->timeMinIs(1010);
  }
  destroyed = nullptr;
  disconnected->notifierIs(nullptr);
  unregistered->isRegisteredNotifieeIs(false);

  manager->timeIs(1010);
  manager->runOnce(0);
  manager->runOnce(0);
  EXPECT_EQ(destroyedCalls, 0);
  EXPECT_EQ(disconnectedCalls, 0);
  EXPECT_EQ(unregisteredCalls, 0);
  EXPECT_EQ(manager->liveHandles(), 0u);

  // Registering again replays the armed observer, which is due by now.
  unregistered->isRegisteredNotifieeIs(true);
  manager->runOnce(0);
  EXPECT_EQ(unregisteredCalls, 1);
}

TEST_F(ClockTest, OnTimeMayDestroyItselfAndOtherObservers) {
  manager->manualTimeIs(1000);
  int killerCalls = 0, victimCalls = 0;
  auto killer = newAlarm();
  auto victim = Orb::allocate<CountingAlarm>(&victimCalls);
  victim->notifierIs(clock);
  auto bystander = newAlarm();
  killer->action = [&](Alarm&) {
    ++killerCalls;
    victim = nullptr;
    killer = nullptr;  // the last reference: destroys the observer being called
  };
  killer->timeMinIs(1010);
  victim->timeMinIs(1010);
  bystander->timeMinIs(1010);

  manager->timeIs(1010);
  manager->runOnce(0);
  EXPECT_EQ(killerCalls, 1);
  EXPECT_EQ(victimCalls, 0);
  EXPECT_FALSE(killer);
  EXPECT_EQ(bystander->calls, 1);
}

TEST_F(ClockTest, ObserverReArmedInsideOnTimeFiresOncePerTurn) {
  auto alarm = newAlarm();
  alarm->action = [](Alarm& self) {
    if (self.calls < 3) self.timeMinIs(Orb::System::currentTime() - 1);
  };
  alarm->timeMinIs(Orb::System::currentTime() - 1);
  for (int turn = 1; turn <= 3; ++turn) {
    EXPECT_TRUE(manager->runOnce(0));
    EXPECT_EQ(alarm->calls, turn);
  }
  EXPECT_EQ(alarm->timeMin(), infinity);
  EXPECT_FALSE(manager->runOnce(0));
  EXPECT_EQ(alarm->calls, 3);
}

TEST_F(ClockTest, ManualTimeHoldsUntilTheHostMovesIt) {
  manager->manualTimeIs(500);
  EXPECT_TRUE(manager->isManualTime());
  EXPECT_EQ(Orb::System::currentTime(), 500);
  auto alarm = newAlarm();
  alarm->timeMinIs(501);
  EXPECT_FALSE(manager->runOnce(0.02));  // real time passes, manual time does not
  EXPECT_EQ(alarm->calls, 0);
  manager->timeIs(400);  // backwards is allowed
  EXPECT_EQ(Orb::System::currentTime(), 400);

  // Re-arming inside onTime under manual time waits for the host too.
  alarm->action = [](Alarm& self) { self.timeMinIs(600); };
  manager->timeIs(501);
  manager->runOnce(0);
  EXPECT_EQ(alarm->calls, 1);
  manager->timeIs(599);
  manager->runOnce(0);
  EXPECT_EQ(alarm->calls, 1);
  alarm->action = nullptr;
  manager->timeIs(600);
  manager->runOnce(0);
  EXPECT_EQ(alarm->calls, 2);

  manager->realTimeIs();
  EXPECT_FALSE(manager->isManualTime());
  const Seconds wall =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  EXPECT_NEAR(Orb::System::currentTime(), wall, 60.0);

  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  EXPECT_THROW(manager->timeIs(700), Orb::RangeException);
}

TEST_F(ClockTest, SwitchingToRealTimeFiresObserversAlreadyDue) {
  manager->manualTimeIs(1000);
  auto alarm = newAlarm();
  alarm->timeMinIs(Orb::System::currentTime() + 100);  // long past in real time
  manager->runOnce(0);
  EXPECT_EQ(alarm->calls, 0);
  manager->realTimeIs();
  EXPECT_TRUE(manager->runOnce(0));
  EXPECT_EQ(alarm->calls, 1);
}

TEST_F(ClockTest, ExceptionInOnTimeIsTracedAndOtherObserversStillFire) {
  std::ostringstream traced;
  Orb::TraceHandle& trace = Orb::frameworkTrace();
  const uint32_t levels = trace.levels();
  trace.levelsIs(1u << 1);
  Orb::TraceHandle::outputIs(&traced);

  manager->manualTimeIs(1000);
  auto thrower = newAlarm();
  auto other = newAlarm();
  thrower->action = [](Alarm&) { throw std::runtime_error("alarm bell broken"); };
  thrower->timeMinIs(1001);
  other->timeMinIs(1001);
  manager->timeIs(1001);
  manager->runOnce(0);

  Orb::TraceHandle::outputIs(nullptr);
  trace.levelsIs(levels);
  EXPECT_EQ(thrower->calls, 1);
  EXPECT_EQ(other->calls, 1);
  EXPECT_NE(traced.str().find("alarm bell broken"), std::string::npos) << traced.str();
  EXPECT_NE(traced.str().find(" Orb 1 "), std::string::npos) << traced.str();
}

TEST_F(ClockTest, NotANumberIsRefused) {
  auto alarm = newAlarm();
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  EXPECT_THROW(alarm->timeMinIs(std::numeric_limits<Seconds>::quiet_NaN()), Orb::RangeException);
  EXPECT_EQ(alarm->timeMin(), infinity);
}

TEST_F(ClockTest, SecondClockDestroyedWhileArmedReleasesItsTimer) {
  auto own = Orb::allocate<Orb::Clock>("own");
  auto alarm = Orb::allocate<Alarm>();
  alarm->notifierIs(own);
  alarm->timeMinIs(Orb::System::currentTime() + 3600);
  EXPECT_EQ(manager->liveHandles(), 1u);
  own = nullptr;
  alarm = nullptr;  // drops the last reference to the clock with its armed timer
  EXPECT_EQ(manager->liveHandles(), 1u);  // closing: freed by the loop
  manager->runOnce(0);
  EXPECT_EQ(manager->liveHandles(), 0u);
}

}  // namespace
