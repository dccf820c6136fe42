#include "Orb/ActivityManager.h"

#include <uv.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>

#include "Orb/Clock.h"
#include "Orb/Exception.h"
#include "Orb/FileDescriptor.h"
#include "Orb/Trace.h"

namespace Orb {

namespace {

// Longest wait we give libuv as a timer (about 30 years); longer waits are unbounded.
constexpr double maxWaitMilliseconds = 1e12;

Seconds wallClock() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

Seconds monotonicClock() {
  return static_cast<double>(uv_hrtime()) / 1e9;
}

}  // namespace

ActivityManager* activityManager() {
  static ActivityManager* manager = new ActivityManager;  // lives until the process exits
  return manager;
}

ActivityManager::ActivityManager() : loop_(new uv_loop_t), waitTimer_(new uv_timer_t) {
  (void)frameworkTrace();  // exists from now on, so later trace configuration reaches it
  if (int error = uv_loop_init(loop_); error != 0) {
    throwInternalException(String("cannot create the activity loop: ") + uv_strerror(error));
  }
  loop_->data = this;
  uv_timer_init(loop_, waitTimer_);
  clock_ = allocate<Clock>(Name("clock"), this);
}

ActivityManager* ActivityManager::of(const uv_loop_s* loop) {
  return static_cast<ActivityManager*>(loop->data);
}

void ActivityManager::onWaitTimer(uv_timer_s*) {}

void ActivityManager::dispatchNoted() noexcept {
  ++dispatched_;
  // Callbacks may have made the host's condition true; do not block in this turn's poll.
  uv_stop(loop_);
}

void ActivityManager::callbackFailed(const char* source, const char* what) {
  char buffer[256];
  if (auto t = TraceHelper::createIfEnabled(frameworkTrace(), 1, buffer)) {
    t->stream() << "exception in " << source << " callback: " << what;
    t->trace("Orb", __LINE__, __func__);
  }
}

bool ActivityManager::runOnce(Seconds maxWaitSeconds) {
  if (running_) throwInternalException("activity loop is already running");
  running_ = true;
  ++turn_;
  dispatched_ = 0;
  struct TurnEnd {
    ActivityManager* manager;
    ~TurnEnd() {
      uv_timer_stop(manager->waitTimer_);
      manager->running_ = false;
    }
  } turnEnd{this};

  uv_update_time(loop_);
  // Observers that became due during the last turn may fire now.
  for (Clock* clock : clocks_) {
    if (clock->nextTurnPending()) clock->reschedule();
  }
  uv_run_mode mode = UV_RUN_ONCE;
  if (!(maxWaitSeconds > 0)) {
    mode = UV_RUN_NOWAIT;
  } else if (double ms = std::ceil(maxWaitSeconds * 1000.0); ms < maxWaitMilliseconds) {
    // Repeating, so that a timer that expires before libuv polls still bounds the poll.
    auto interval = static_cast<uint64_t>(ms);
    uv_timer_start(waitTimer_, &ActivityManager::onWaitTimer, interval, interval);
  }
  uv_run(loop_, mode);
  return dispatched_ > 0;
}

bool ActivityManager::runUntil(const std::function<bool()>& predicate, Seconds timeoutSeconds) {
  if (!predicate) return false;
  const Seconds deadline = monotonicClock() + std::max(timeoutSeconds, 0.0);
  stopRequested_ = false;
  struct StopClear {
    bool& flag;
    ~StopClear() { flag = false; }
  } stopClear{stopRequested_};
  for (;;) {
    if (predicate()) return true;
    Seconds left = deadline - monotonicClock();
    if (stopRequested_ || !(left > 0)) return false;
    runOnce(left);
  }
}

Seconds ActivityManager::currentTime() const {
  return manualTime_ ? manualNow_ : wallClock();
}

void ActivityManager::manualTimeIs(Seconds start) {
  manualTime_ = true;
  manualNow_ = start;
  clocksRescheduled();
}

void ActivityManager::timeIs(Seconds now) {
  if (!manualTime_) throwRangeException("activity manager is not on manual time");
  manualNow_ = now;
  clocksRescheduled();
}

void ActivityManager::realTimeIs() {
  if (!manualTime_) return;
  manualTime_ = false;
  clocksRescheduled();
}

void ActivityManager::clocksRescheduled() {
  for (Clock* clock : clocks_) clock->reschedule();
}

void ActivityManager::clockIs(Clock* clock) {
  clocks_.push_back(clock);
}

void ActivityManager::clockDel(Clock* clock) {
  std::erase(clocks_, clock);
}

FileDescriptor* ActivityManager::watcher(int fd) const {
  auto it = watchers_.find(fd);
  return it == watchers_.end() ? nullptr : it->second;
}

void ActivityManager::watcherIs(int fd, FileDescriptor* watcher) {
  watchers_[fd] = watcher;
}

void ActivityManager::watcherDel(int fd, const FileDescriptor* watcher) {
  auto it = watchers_.find(fd);
  if (it != watchers_.end() && it->second == watcher) watchers_.erase(it);
}

}  // namespace Orb
