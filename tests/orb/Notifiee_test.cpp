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

// Logs its callbacks under its tag: "a" for onValue, "a+" when connected, "a!" for an exception
// reported to it, "a~" when destroyed while marked as being torn down. Runs an optional reaction
// to onValue().
class Watcher : public Counter::NotifieeConst {
 public:
  explicit Watcher(std::string tag) : tag_(std::move(tag)) {}
  ~Watcher() override {
    if (isTearingDown()) events.push_back(tag_ + "~");
  }
  std::function<void()> reaction;
  void onValue() override {
    events.push_back(tag_);
    if (reaction) reaction();
  }

 protected:
  void onNotifierConnected() override { events.push_back(tag_ + "+"); }
  void onNotificationException(const std::exception&) override { events.push_back(tag_ + "!"); }

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
  auto a = watcher("a"), b = watcher("b"), c = watcher("c"), d = watcher("d");
  Orb::Ptr<Watcher> late;
  // a throws after destroying b (the last reference), adding an observer and leaving itself:
  // having left, it hears nothing of its exception. c throws and stays: it is told.
  a->reaction = [&] {
    b = nullptr;
    late = watcher("late");
    a->notifierIs(static_cast<const Counter*>(nullptr));
    throw std::runtime_error("boom");
  };
  c->reaction = [] { throw std::runtime_error("bang"); };
  counter->valueIs();
  c->reaction = nullptr;
  counter->valueIs();  // the newcomer waited for this visit
  d = nullptr;
  EXPECT_EQ(events, (Log{"a+", "b+", "c+", "d+", "a", "b~", "late+", "c", "c!", "d", "c", "d",
                         "late", "d~"}));
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

TEST_F(NotifieeTest, UnregisteredOrDroppedObserversGetNoCallbacksButHearOfTheEnd) {
  auto a = watcher("a"), weak = watcher("w", true), quiet = watcher("q", true);
  quiet->isRegisteredNotifieeIs(false);
  a->isRegisteredNotifieeIs(false);
  counter->valueIs();
  a->isRegisteredNotifieeIs(true);  // joins again and replays like a new connection
  counter->valueIs();
  counter->notifiees().deleteAll();
  counter->valueIs();
  EXPECT_EQ(events, (Log{"a+", "w+", "q+", "w", "a+", "w", "a"}));
  EXPECT_EQ(weak->notifierPtr(), counter.ptr());
  counter = nullptr;
  EXPECT_EQ(destroyed, 0);  // `a` still holds its reference
  a = nullptr;
  EXPECT_EQ(destroyed, 1);
  // Both weak ones forgot the notifier, so they do not detach from freed memory when they go.
  EXPECT_EQ(weak->notifierPtr(), nullptr);
  EXPECT_EQ(quiet->notifierPtr(), nullptr);
}

}  // namespace
