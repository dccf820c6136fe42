#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>

#include "Orb/ActivityManager.h"
#include "Orb/Clock.h"
#include "Orb/Exception.h"
#include "Orb/Trace.h"

// Helpers shared by the framework's tests.
namespace OrbTest {

#define EXPECT_CONTAINS(haystack, needle) \
  EXPECT_PRED_FORMAT2(testing::IsSubstring, needle, haystack)

// Runs `read` and returns the parse exception's message.
template <class F>
std::string parseFailure(F&& read) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::parse);
  try {
    read();
  } catch (const Orb::ParseException& e) {
    return e.what();
  }
  return "no parse exception";
}

// A clock observer that counts its calls and runs an optional action inside onTime().
class Alarm : public Orb::Clock::NotifieeConst {
 public:
  int calls = 0;
  std::function<void(Alarm&)> action;
  void onTime() override {
    ++calls;
    if (action) action(*this);
  }
};

// A connected pair of stream sockets, closed at destruction (an end set to -1 is not).
struct SocketPair {
  SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
  ~SocketPair() { ::close(fd[0]), ::close(fd[1]); }
  int fd[2] = {-1, -1};
};

// A test on the activity loop. It ends in real time, with tracing off, and with the loop run
// dry of live handles.
class LoopTest : public ::testing::Test {
 protected:
  void TearDown() override {
    Orb::TraceHandle::configurationIs("");
    Orb::TraceHandle::outputIs(nullptr);
    manager->realTimeIs();
    EXPECT_TRUE(manager->runUntil([this] { return manager->liveHandles() == 0; }, 0.5));
  }
  Orb::Ptr<Alarm> newAlarm() {
    auto alarm = Orb::allocate<Alarm>();
    alarm->notifierIs(manager->clock());
    return alarm;
  }
  // Captures the framework's level-1 lines, where faults in callbacks are reported.
  void traceFaults() {
    Orb::TraceHandle::outputIs(&traced);
    Orb::TraceHandle::configurationIs("Orb/1");
  }
  Orb::ActivityManager* manager = Orb::activityManager();
  std::ostringstream traced;
};

}  // namespace OrbTest
