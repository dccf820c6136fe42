#include "Orb/Notifiee.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Orb/Entity.h"

namespace {

using Log = std::vector<std::string>;
Log events;
int destroyed = 0;

// A small notifier with one event.
class Counter : public Orb::Entity {
 public:
  class NotifieeConst : public Orb::BaseNotifiee<Counter> {
   public:
    virtual void onValue() {}
  };
  Counter() : Orb::Entity("c") {}
  void valueIs() { notifiees().doVisit(&NotifieeConst::onValue); }

 protected:
  ~Counter() override { ++destroyed; }
};

// Logs its callbacks under its tag ("a" for onValue, "a+" when connected) and runs an optional
// reaction to onValue().
class Watcher : public Counter::NotifieeConst {
 public:
  explicit Watcher(std::string tag) : tag_(std::move(tag)) {}
  std::function<void()> reaction;
  void onValue() override {
    events.push_back(tag_);
    if (reaction) reaction();
  }

 protected:
  void onNotifierConnected() override { events.push_back(tag_ + "+"); }

 private:
  std::string tag_;
};

class NotifieeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    destroyed = 0;
    events.clear();
  }
  Orb::Ptr<Watcher> watcher(const std::string& tag, bool weak = false) {
    auto w = Orb::allocate<Watcher>(tag);
    w->isWeakReferenceIs(weak);
    w->notifierIs(counter);
    return w;
  }
  Orb::Ptr<Counter> counter = Orb::allocate<Counter>();
};

TEST_F(NotifieeTest, VisitsInOrderWhileObserversComeGoOrThrow) {
  auto a = watcher("a"), b = watcher("b"), c = watcher("c");
  Orb::Ptr<Watcher> late;
  // a throws after destroying b (the last reference), adding an observer and leaving itself.
  a->reaction = [&] {
    b = nullptr;
    late = watcher("late");
    a->notifierIs(static_cast<const Counter*>(nullptr));
    throw std::runtime_error("boom");
  };
  counter->valueIs();
  counter->valueIs();  // the newcomer waited for this visit
  EXPECT_EQ(events, (Log{"a+", "b+", "c+", "a", "late+", "c", "c", "late"}));
}

TEST_F(NotifieeTest, StrongObserversKeepTheNotifierAliveAndWeakOnesAreToldOfItsEnd) {
  auto strong = watcher("s"), weak = watcher("w", true);
  const Counter* raw = counter.ptr();
  counter = nullptr;
  EXPECT_EQ(weak->notifierPtr(), raw);
  strong->isWeakReferenceIs(true);  // releases the last reference
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(weak->notifierPtr(), nullptr);

  counter = Orb::allocate<Counter>();  // destroyed inside its own visit: the visit stops there
  auto first = watcher("first", true), second = watcher("second", true);
  first->reaction = [&] { counter = nullptr; };
  Counter* live = counter.ptr();
  live->valueIs();
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(events.back(), "first");
  EXPECT_EQ(second->notifierPtr(), nullptr);
}

TEST_F(NotifieeTest, UnregisteredOrDroppedObserversGetNoCallbacks) {
  auto a = watcher("a"), weak = watcher("w", true);
  a->isRegisteredNotifieeIs(false);
  counter->valueIs();
  a->isRegisteredNotifieeIs(true);  // joins again and replays like a new connection
  counter->valueIs();
  counter->notifiees().deleteAll();
  counter->valueIs();
  EXPECT_EQ(events, (Log{"a+", "w+", "w", "a+", "w", "a"}));
  EXPECT_EQ(weak->notifierPtr(), nullptr);     // it would not hear of the end
  EXPECT_EQ(a->notifierPtr(), counter.ptr());  // still holds its reference
  counter = nullptr;
  EXPECT_EQ(destroyed, 0);
  a = nullptr;
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
