#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "Orb/Clock.h"
#include "Orb/HashMap.h"
#include "Orb/Ptr.h"
#include "Orb/Seconds.h"

struct uv_loop_s;
struct uv_timer_s;

namespace Orb {

class FileDescriptor;

// The process's one activity loop, on its own libuv loop. Everything the framework does happens
// in its callbacks, on the thread that drives it: readiness of watched file descriptors
// (`FileDescriptor`) and wake-up calls of clock observers (`Clock`). A host drives the loop one
// turn at a time or until a condition holds:
//
//   Orb::ActivityManager* manager = Orb::activityManager();
//   manager->runUntil([&] { return response->status() == done; }, 5.0);
//
// Turns. `runOnce` is one turn: it waits for events (at most the given time) and dispatches
// what is ready. A clock observer armed during a turn (from any callback) fires at the earliest
// in the next turn, so an observer that re-arms itself for "now" runs once per turn rather than
// spinning inside one.
//
// Time. `currentTime()` (also `Orb::System::currentTime()`) is wall-clock seconds since the
// epoch, unless the manager runs on manual time: then it is whatever the host last set, and
// observers fire in the first turn after the manual time reaches their wake time.
//
//   manager->manualTimeIs(1000.0);   // the clock now reads 1000 and only moves when told
//   observer->timeMinIs(1010.0);
//   manager->timeIs(1010.0);
//   manager->runOnce(0);             // observer->onTime() runs here
//   manager->realTimeIs();
//
// The manager is created on first use and lives until the process exits. It is not
// thread-safe: use it from one thread.
class ActivityManager {
 public:
  ActivityManager(const ActivityManager&) = delete;
  ActivityManager& operator=(const ActivityManager&) = delete;

  // The clock of this loop; observers connect to it to be woken.
  [[nodiscard]] Ptr<Clock> clock() const { return clock_; }

  // One turn: waits at most `maxWaitSeconds` for an event (0: does not wait; +infinity: until
  // some event arrives, or returns at once when nothing is watched), then dispatches readiness
  // and due clock observers. Returns whether it reported anything (readiness or a wake-up); a
  // turn that did ends without waiting further. Calling it from inside a callback raises the
  // internal exception "activity loop is already running".
  bool runOnce(Seconds maxWaitSeconds);
  // Runs turns until `predicate` holds, `timeoutSeconds` of real time pass, or `stop()` is
  // called. Returns the predicate's value after the last turn (an empty predicate never holds).
  bool runUntil(const std::function<bool()>& predicate, Seconds timeoutSeconds);
  // Makes a running `runUntil` return after the current turn.
  void stop() noexcept { stopRequested_ = true; }

  // Whether a turn is in progress (the caller is inside a loop callback).
  [[nodiscard]] bool isRunning() const noexcept { return running_; }
  // Number of the current turn (or of the last one, between turns); starts at 0.
  [[nodiscard]] uint64_t turn() const noexcept { return turn_; }

  // Seconds since the epoch, from the current time source.
  [[nodiscard]] Seconds currentTime() const;
  [[nodiscard]] bool isManualTime() const noexcept { return manualTime_; }
  // Switches to manual time, starting at `start`.
  void manualTimeIs(Seconds start);
  // Sets the manual time (forward or back). Under real time raises the range exception.
  void timeIs(Seconds now);
  // Switches back to wall-clock time.
  void realTimeIs();

  // libuv handles that framework objects (file descriptors, clocks) hold and libuv has not yet
  // released: those watching or armed, and those closed but whose close callback has not run.
  // Once nothing is registered, it drops to 0 in the next turn.
  [[nodiscard]] size_t liveHandles() const noexcept { return liveHandles_; }

  // The libuv loop, for framework code that adds its own handles. Drive it only through
  // `runOnce` / `runUntil`.
  [[nodiscard]] uv_loop_s* loop() const noexcept { return loop_; }

 private:
  friend ActivityManager* activityManager();
  friend class Clock;
  friend class FileDescriptor;

  ActivityManager();
  ~ActivityManager() = default;  // never destroyed

  static ActivityManager* of(const uv_loop_s* loop);
  static void onWaitTimer(uv_timer_s* timer);
  // A callback let an exception through to the loop: traced at level 1 on "Orb", then ignored.
  static void callbackFailed(const char* source, const char* what);

  // Called by clocks and file descriptors.
  void handleOpened() noexcept { ++liveHandles_; }
  void handleClosed() noexcept { --liveHandles_; }
  // An observer is being called: the turn ends without waiting any longer.
  void dispatchNoted() noexcept;
  void clockIs(Clock* clock);
  void clockDel(Clock* clock);
  // The file descriptor that watches `fd`, or null; at most one watches each descriptor.
  [[nodiscard]] FileDescriptor* watcher(int fd) const;
  void watcherIs(int fd, FileDescriptor* watcher);
  void watcherDel(int fd, const FileDescriptor* watcher);
  void clocksRescheduled();

  uv_loop_s* loop_;
  uv_timer_s* waitTimer_;
  Ptr<Clock> clock_;
  std::vector<Clock*> clocks_;
  HashMap<int, FileDescriptor*> watchers_;
  size_t liveHandles_ = 0;
  uint64_t turn_ = 0;
  uint64_t dispatched_ = 0;
  bool running_ = false;
  bool stopRequested_ = false;
  bool manualTime_ = false;
  Seconds manualNow_ = 0;
};

// The process-wide activity manager, created on first use.
[[nodiscard]] ActivityManager* activityManager();

}  // namespace Orb
