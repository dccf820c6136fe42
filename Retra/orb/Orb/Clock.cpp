#include "Orb/Clock.h"

#include <uv.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <utility>

#include "Orb/ActivityManager.h"
#include "Orb/Exception.h"

namespace Orb {

namespace {
// Longest timer we set (about 30 years); a later wake time is re-planned when it expires.
constexpr double maxTimerMilliseconds = 1e12;
}  // namespace

// What a clock's observers ask of its timer, gathered by visiting them.
struct Clock::NotifieeConst::Plan {
  Seconds now;
  uint64_t turn;
  bool inTurn;
  Seconds earliest = never;  // earliest wake time that may still fire in this turn
  bool deferred = false;     // some observer is due but was armed in this turn
};

void Clock::NotifieeConst::timeMinIs(Seconds time) {
  if (std::isnan(time)) throwRangeException("clock wake time is not a number");
  const Clock* clock = notifierPtr();
  timeMin_ = time;
  armedTurn_ = (clock ? clock->manager_ : Orb::activityManager())->turn();
  if (clock && isInNotifieeList()) clock->reschedule();
}

void Clock::NotifieeConst::notifierIs(const Clock* clock) {
  const Clock* old = notifierPtr();
  if (clock == old) return;
  Ptr<const Clock> keep(old);  // dropping our reference may otherwise destroy it
  BaseNotifiee<Clock>::notifierIs(clock);
  if (timeMin_ == never) return;
  if (old) old->reschedule();
  if (clock) clock->reschedule();
}

void Clock::NotifieeConst::isRegisteredNotifieeIs(bool registered) {
  if (registered == isRegisteredNotifiee()) return;
  BaseNotifiee<Clock>::isRegisteredNotifieeIs(registered);
  if (const Clock* clock = notifierPtr(); clock && timeMin_ != never) clock->reschedule();
}

Clock::NotifieeConst::~NotifieeConst() {
  if (timeMin_ == never) return;
  timeMin_ = never;
  if (const Clock* clock = notifierPtr(); clock && isInNotifieeList()) clock->reschedule();
}

void Clock::NotifieeConst::onTimeIfDue(Seconds now, uint64_t turn) {
  if (timeMin_ > now || armedTurn_ >= turn) return;
  timeMin_ = never;
  notifierPtr()->manager_->dispatchNoted();
  onTime();  // an exception goes to the notifiee list, which traces it and goes on
}

void Clock::NotifieeConst::planned(Plan& plan) {
  if (timeMin_ == never) return;
  if (plan.inTurn && armedTurn_ >= plan.turn && timeMin_ <= plan.now) {
    plan.deferred = true;
    return;
  }
  plan.earliest = std::min(plan.earliest, timeMin_);
}

Clock::Clock(const Name& name, ActivityManager* manager)
    : Entity(name), manager_(manager ? manager : Orb::activityManager()) {
  manager_->clockIs(this);
}

Clock::~Clock() {
  manager_->clockDel(this);
  releaseTimer();
}

Seconds Clock::now() const {
  return manager_->currentTime();
}

void Clock::reschedule() const {
  if (dispatching_) return;  // the dispatch re-plans once all observers have run
  ActivityManager* manager = manager_;
  NotifieeConst::Plan plan{manager->currentTime(), manager->turn(), manager->isRunning()};
  notifiees().doVisit(&NotifieeConst::planned, plan);
  nextTurnPending_ = plan.deferred;
  // The next turn fires them; this one must not sleep before it ends.
  if (plan.deferred && manager->isRunning()) uv_stop(manager->loop());
  if (plan.earliest == never && !plan.deferred) {
    releaseTimer();
    return;
  }
  if (!timer_) {
    timer_ = new uv_timer_t;
    uv_timer_init(manager->loop(), timer_);
    timer_->data = const_cast<Clock*>(this);
    manager->handleOpened();
  }
  // Under manual time nothing fires before the host moves the time to it.
  if (plan.earliest == never || (manager->isManualTime() && plan.earliest > plan.now)) {
    uv_timer_stop(timer_);
    return;
  }
  double ms = std::clamp(std::ceil((plan.earliest - plan.now) * 1000.0), 0.0, maxTimerMilliseconds);
  // Between turns libuv's cached time may be old, which would make the timer early.
  if (!manager->isRunning()) uv_update_time(manager->loop());
  uv_timer_start(timer_, &Clock::onTimer, static_cast<uint64_t>(ms), 0);
}

void Clock::dispatch() const {
  Ptr<const Clock> hold(this);  // an observer may drop the last reference to the clock
  ActivityManager* manager = manager_;
  dispatching_ = true;
  try {
    notifiees().doVisit(&NotifieeConst::onTimeIfDue, manager->currentTime(), manager->turn());
  } catch (...) {
    dispatching_ = false;
    reschedule();
    throw;
  }
  dispatching_ = false;
  reschedule();
}

void Clock::releaseTimer() const {
  if (!timer_) return;
  uv_timer_t* timer = std::exchange(timer_, nullptr);
  timer->data = nullptr;  // the handle outlives us until its close callback
  uv_close(reinterpret_cast<uv_handle_t*>(timer), &Clock::onTimerClosed);
  nextTurnPending_ = false;
}

void Clock::onTimer(uv_timer_s* timer) {
  const auto* clock = static_cast<const Clock*>(timer->data);
  if (!clock) return;
  try {
    clock->dispatch();
  } catch (const std::exception& e) {
    ActivityManager::callbackFailed("clock", e.what());
  } catch (...) {
    ActivityManager::callbackFailed("clock", "unknown exception");
  }
}

void Clock::onTimerClosed(uv_handle_s* handle) {
  ActivityManager* manager = ActivityManager::of(handle->loop);
  delete reinterpret_cast<uv_timer_t*>(handle);
  manager->handleClosed();
}

}  // namespace Orb
