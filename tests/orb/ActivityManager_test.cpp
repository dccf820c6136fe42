#include "Orb/ActivityManager.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <limits>

#include "Orb/Clock.h"
#include "Orb/Exception.h"
#include "Orb/FileDescriptor.h"

namespace {

using Orb::Seconds;
constexpr Seconds infinity = std::numeric_limits<Seconds>::infinity();

class Alarm : public Orb::Clock::NotifieeConst {
 public:
  int calls = 0;
  std::function<void(Alarm&)> action;

  void onTime() override {
    ++calls;
    if (action) action(*this);
  }
};

struct SocketPair {
  SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
  ~SocketPair() {
    ::close(fd[0]);
    ::close(fd[1]);
  }
  int fd[2] = {-1, -1};
};

class ActivityManagerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    manager->realTimeIs();
    EXPECT_TRUE(manager->runUntil([this] { return manager->liveHandles() == 0; }, 0.5));
  }

  Orb::Ptr<Alarm> newAlarm() {
    auto alarm = Orb::allocate<Alarm>();
    alarm->notifierIs(manager->clock());
    return alarm;
  }

  Orb::ActivityManager* manager = Orb::activityManager();
};

TEST_F(ActivityManagerTest, RunOnceReportsWhetherItDispatched) {
  const uint64_t turn = manager->turn();
  EXPECT_FALSE(manager->runOnce(0));
  EXPECT_EQ(manager->turn(), turn + 1);

  auto alarm = newAlarm();
  bool runningInCallback = false;
  alarm->action = [&](Alarm&) { runningInCallback = manager->isRunning(); };
  alarm->timeMinIs(Orb::System::currentTime() - 1);
  EXPECT_TRUE(manager->runOnce(0));
  EXPECT_TRUE(runningInCallback);
  EXPECT_FALSE(manager->isRunning());
  EXPECT_FALSE(manager->runOnce(0));

  // A turn that has called an observer returns instead of waiting out its time.
  alarm->timeMinIs(Orb::System::currentTime() - 1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(manager->runOnce(30.0));
  const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
  EXPECT_LT(waited.count(), 15.0);
  EXPECT_EQ(alarm->calls, 2);
}

TEST_F(ActivityManagerTest, RunOnceWaitIsBoundedWhileHandlesAreIdle) {
  // An idle poll handle and a far timer keep libuv busy: the wait must still end.
  SocketPair pair;
  auto fd = Orb::allocate<Orb::FileDescriptor>(Orb::Name());
  fd->descriptorIs(pair.fd[0]);
  fd->notifyOnReadableIs(true);
  auto alarm = newAlarm();
  alarm->timeMinIs(Orb::System::currentTime() + 3600);

  EXPECT_FALSE(manager->runOnce(0));
  EXPECT_FALSE(manager->runOnce(0.02));
  EXPECT_FALSE(manager->runUntil([] { return false; }, 0.02));
  EXPECT_EQ(fd->readableCount(), 0u);
  EXPECT_EQ(alarm->calls, 0);
}

TEST_F(ActivityManagerTest, RunUntilReturnsOnceThePredicateHolds) {
  EXPECT_TRUE(manager->runUntil([] { return true; }, 0));

  auto alarm = newAlarm();
  alarm->timeMinIs(Orb::System::currentTime() + 0.01);
  EXPECT_TRUE(manager->runUntil([&] { return alarm->calls == 1; }, 5.0));
}

TEST_F(ActivityManagerTest, RunUntilGivesUpAtTheTimeout) {
  int evaluations = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(manager->runUntil(
      [&] {
        ++evaluations;
        return false;
      },
      0.05));
  const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited.count(), 0.049);  // not before the timeout
  EXPECT_GE(evaluations, 2);         // once before the first turn, once after the last

  EXPECT_FALSE(manager->runUntil(nullptr, 0.01));
}

TEST_F(ActivityManagerTest, StopEndsRunUntilAfterTheCurrentTurn) {
  auto ticker = newAlarm();
  int stopAt = 3;
  ticker->action = [&](Alarm& self) {
    if (self.calls == stopAt) manager->stop();
    self.timeMinIs(Orb::System::currentTime() - 1);  // once per turn
  };
  ticker->timeMinIs(Orb::System::currentTime() - 1);

  EXPECT_FALSE(manager->runUntil([] { return false; }, 2.0));
  EXPECT_EQ(ticker->calls, 3);

  // A stop requested outside runUntil does not end the next one.
  stopAt = 0;
  manager->stop();
  EXPECT_TRUE(manager->runUntil([&] { return ticker->calls == 5; }, 2.0));
  ticker->timeMinIs(infinity);
}

TEST_F(ActivityManagerTest, RunOnceInsideACallbackIsRefused) {
  auto alarm = newAlarm();
  bool refused = false;
  alarm->action = [&](Alarm&) {
    Orb::Expect expect;
    expect.add(Orb::ExceptionId::internal);
    try {
      manager->runOnce(0);
    } catch (const Orb::InternalException& e) {
      refused = std::string(e.what()) == "activity loop is already running";
    }
  };
  alarm->timeMinIs(Orb::System::currentTime() - 1);
  EXPECT_TRUE(manager->runOnce(0));
  EXPECT_TRUE(refused);
  EXPECT_FALSE(manager->isRunning());
}

TEST_F(ActivityManagerTest, LiveHandlesCountsWatchesAndArmedClocksUntilReleased) {
  const size_t before = manager->liveHandles();
  EXPECT_EQ(before, 0u);
  SocketPair pair;
  auto alarm = newAlarm();
  alarm->timeMinIs(Orb::System::currentTime() + 3600);
  EXPECT_EQ(manager->liveHandles(), 1u);
  auto fd = Orb::allocate<Orb::FileDescriptor>(Orb::Name());
  fd->descriptorIs(pair.fd[0]);
  EXPECT_EQ(manager->liveHandles(), 1u);  // nothing to watch for yet
  fd->notifyOnWritableIs(true);
  EXPECT_EQ(manager->liveHandles(), 2u);

  alarm->timeMinIs(infinity);
  fd->descriptorIs(-1);
  EXPECT_EQ(manager->liveHandles(), 2u);  // closed, freed by the loop
  manager->runOnce(0);
  EXPECT_EQ(manager->liveHandles(), 0u);
}

}  // namespace
