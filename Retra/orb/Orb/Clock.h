#pragma once

#include <cstdint>
#include <limits>

#include "Orb/Entity.h"
#include "Orb/Seconds.h"

struct uv_handle_s;
struct uv_timer_s;

namespace Orb {

class ActivityManager;

// Wake-up calls on the activity loop. Each observer (`Clock::NotifieeConst`) carries its own
// wake time, `timeMin`; when the clock reaches it, the loop disarms the observer (`timeMin`
// back to +infinity) and then calls its `onTime()`, once. The observer stays disarmed until it
// sets a new time, which it may do inside `onTime()`. Setting a time replaces the previous one;
// +infinity disarms; a time already past fires in the next turn. Several observers with
// independent times may share one clock. An observer destroyed or disconnected before its time
// is never called, nor one unregistered while it stays so. `onTime()` may destroy its own or other
// observers.
//
//   class Timeout : public Orb::Clock::NotifieeConst {
//     void onTime() override { ...; timeMinIs(Orb::System::currentTime() + 1.0); }  // periodic
//   };
//   auto t = Orb::allocate<Timeout>();
//   t->notifierIs(Orb::activityManager()->clock());
//   t->timeMinIs(Orb::System::currentTime() + 0.5);
//
// The loop's clock is `activityManager()->clock()`. A clock holds one libuv timer while any
// observer is armed, set for the earliest wake time, and releases it when none is. An exception
// thrown by `onTime()` is traced at level 1 on the "Orb" facility and the loop goes on.
class Clock : public Entity {
 public:
  static constexpr Seconds never = std::numeric_limits<Seconds>::infinity();

  class NotifieeConst : public BaseNotifiee<Clock> {
   public:
    // The wake time, seconds since the epoch; +infinity when disarmed.
    [[nodiscard]] Seconds timeMin() const noexcept { return timeMin_; }
    // Arms (or, with +infinity, disarms) the observer. A NaN time raises the range exception.
    void timeMinIs(Seconds time);

    // Called once the clock has reached `timeMin()`, which is +infinity again by then.
    virtual void onTime() {}

    // As in `BaseNotifiee`, and the clocks involved re-plan their timer. Use these (not the
    // `BaseNotifiee<Clock>` ones) so that an armed observer is scheduled or forgotten at once.
    void notifierIs(const Ptr<const Clock>& clock) { notifierIs(clock.ptr()); }
    void notifierIs(const Clock* clock);
    void isRegisteredNotifieeIs(bool registered);

   protected:
    NotifieeConst() = default;
    ~NotifieeConst() override;

   private:
    friend class Clock;
    struct Plan;

    void onTimeIfDue(Seconds now, uint64_t turn);
    void planned(Plan& plan);

    Seconds timeMin_ = never;
    uint64_t armedTurn_ = 0;  // the loop turn in which timeMin_ was set
  };
  using Notifiee = NotifieeConst;

  // A clock of `manager` (null: the process's activity manager).
  explicit Clock(const Name& name, ActivityManager* manager = nullptr);

  // The current time of the clock's activity manager.
  [[nodiscard]] Seconds now() const;
  [[nodiscard]] ActivityManager* activityManager() const noexcept { return manager_; }

 protected:
  ~Clock() override;

 private:
  friend class ActivityManager;

  static void onTimer(uv_timer_s* timer);
  static void onTimerClosed(uv_handle_s* handle);

  // Sets the timer for the earliest wake time, or releases it when nothing is armed.
  void reschedule() const;
  void dispatch() const;
  void releaseTimer() const;
  [[nodiscard]] bool nextTurnPending() const noexcept { return nextTurnPending_; }

  ActivityManager* manager_;
  mutable uv_timer_s* timer_ = nullptr;
  mutable bool dispatching_ = false;
  mutable bool nextTurnPending_ = false;  // due observers wait for the next turn
};

}  // namespace Orb
