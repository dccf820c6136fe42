#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Orb/Entity.h"
#include "Orb/Notifiee.h"

namespace {

// A small notifier: one counter attribute and one keyed collection.
class Counter : public Orb::Entity {
 public:
  class NotifieeConst : public Orb::BaseNotifiee<Counter> {
   public:
    virtual void onValue() {}
    virtual void onItem(const std::string&) {}
  };

  explicit Counter(const Orb::Name& name, int* destroyed = nullptr)
      : Orb::Entity(name), destroyed_(destroyed) {}

  void valueIs(int v) {
    if (v == value_) return;
    value_ = v;
    notifiees().doVisit(&NotifieeConst::onValue);
  }
  void itemIs(const std::string& key) { notifiees().doVisit(&NotifieeConst::onItem, key); }
  int value() const { return value_; }

 protected:
  ~Counter() override {
    if (destroyed_) ++*destroyed_;
  }

 private:
  int value_ = 0;
  int* destroyed_;
};

// An observer whose reaction is a test-supplied function.
class Watcher : public Counter::NotifieeConst {
 public:
  explicit Watcher(std::vector<std::string>* log, std::string tag, int* destroyed = nullptr)
      : log_(log), tag_(std::move(tag)), destroyed_(destroyed) {}
  ~Watcher() override {
    if (destroyed_) ++*destroyed_;
  }

  std::function<void()> reaction;
  std::function<void()> onConnect;

  void onValue() override {
    log_->push_back(tag_);
    if (reaction) reaction();
  }
  void onItem(const std::string& key) override { log_->push_back(tag_ + ":" + key); }

 protected:
  void onNotifierConnected() override {
    log_->push_back(tag_ + " connected");
    if (onConnect) onConnect();
  }

 private:
  std::vector<std::string>* log_;
  std::string tag_;
  int* destroyed_;
};

using Log = std::vector<std::string>;

TEST(NotifieeTest, NotifiesRegisteredObserversInOrderOnlyOnChange) {
  Log log;
  auto counter = Orb::allocate<Counter>("c");
  auto a = Orb::allocate<Watcher>(&log, "a");
  auto b = Orb::allocate<Watcher>(&log, "b");
  a->notifierIs(counter);
  b->notifierIs(counter);
  counter->valueIs(1);
  counter->valueIs(1);
  counter->itemIs("k");
  EXPECT_EQ(log, (Log{"a connected", "b connected", "a", "b", "a:k", "b:k"}));
  EXPECT_EQ(counter->notifiees().members(), 2u);
  EXPECT_TRUE(a->isInNotifieeList());
}

TEST(NotifieeTest, ObserversJoiningOrLeavingDuringAVisitAreHandledSafely) {
  Log log;
  int destroyed = 0;
  auto counter = Orb::allocate<Counter>("c");
  auto a = Orb::allocate<Watcher>(&log, "a");
  auto b = Orb::allocate<Watcher>(&log, "b", &destroyed);
  auto c = Orb::allocate<Watcher>(&log, "c");
  Orb::Ptr<Watcher> late;
  for (auto& w : {a, b, c}) w->notifierIs(counter);
  log.clear();

  // a destroys b (the last reference) and adds a new observer; a then removes itself.
  a->reaction = [&] {
    b = nullptr;
    late = Orb::allocate<Watcher>(&log, "late");
    late->notifierIs(counter);
    a->notifierIs(static_cast<const Counter*>(nullptr));
  };
  counter->valueIs(1);
  EXPECT_EQ(destroyed, 1);
  // b is gone before its turn; the newcomer waits for the next visit.
  EXPECT_EQ(log, (Log{"a", "late connected", "c"}));

  log.clear();
  counter->valueIs(2);
  EXPECT_EQ(log, (Log{"c", "late"}));
  EXPECT_EQ(counter->notifiees().members(), 2u);
}

TEST(NotifieeTest, NotifierDestroyedDuringItsOwnVisitStopsTheVisit) {
  Log log;
  int destroyed = 0;
  auto counter = Orb::allocate<Counter>("c", &destroyed);
  auto a = Orb::allocate<Watcher>(&log, "a");
  auto b = Orb::allocate<Watcher>(&log, "b");
  a->isWeakReferenceIs(true);
  b->isWeakReferenceIs(true);
  a->notifierIs(counter);
  b->notifierIs(counter);
  Counter* raw = counter.ptr();
  counter = nullptr;  // only the weak observers point at it now: destroyed
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(a->notifierPtr(), nullptr);
  EXPECT_FALSE(a->isInNotifieeList());

  // Again, with the notifier destroyed from inside a callback.
  destroyed = 0;
  counter = Orb::allocate<Counter>("d", &destroyed);
  raw = counter.ptr();
  a->notifierIs(counter);
  b->notifierIs(counter);
  log.clear();
  a->reaction = [&] { counter = nullptr; };
  raw->valueIs(5);
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(log, (Log{"a"}));
  EXPECT_EQ(b->notifierPtr(), nullptr);
}

TEST(NotifieeTest, StrongObserversKeepTheNotifierAliveAndWeakOnesDoNot) {
  Log log;
  int destroyed = 0;
  auto counter = Orb::allocate<Counter>("c", &destroyed);
  auto strong = Orb::allocate<Watcher>(&log, "s");
  strong->notifierIs(counter);
  EXPECT_EQ(counter->references(), 2u);
  const Counter* raw = counter.ptr();
  counter = nullptr;
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(strong->notifierPtr(), raw);

  // Turning the reference weak releases the last one.
  strong->isWeakReferenceIs(true);
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(strong->notifier(), nullptr);
}

TEST(NotifieeTest, UnregisteredObserversKeepTheirNotifierButGetNoCallbacks) {
  Log log;
  auto counter = Orb::allocate<Counter>("c");
  auto a = Orb::allocate<Watcher>(&log, "a");
  a->notifierIs(counter);
  a->isRegisteredNotifieeIs(false);
  counter->valueIs(1);
  EXPECT_EQ(log, (Log{"a connected"}));
  EXPECT_EQ(a->notifierPtr(), counter.ptr());
  a->isRegisteredNotifieeIs(true);  // joins again and replays like a new connection
  counter->valueIs(2);
  EXPECT_EQ(log, (Log{"a connected", "a connected", "a"}));

  counter->notifiees().deleteAll();
  counter->valueIs(3);
  EXPECT_FALSE(a->isInNotifieeList());
  EXPECT_EQ(log.size(), 3u);
}

TEST(NotifieeTest, AThrowingObserverDoesNotStopTheOthers) {
  Log log;
  auto counter = Orb::allocate<Counter>("c");
  auto a = Orb::allocate<Watcher>(&log, "a");
  auto b = Orb::allocate<Watcher>(&log, "b");
  a->notifierIs(counter);
  b->notifierIs(counter);
  a->reaction = [] { throw std::runtime_error("boom"); };
  EXPECT_NO_THROW(counter->valueIs(1));
  EXPECT_EQ(log.back(), "b");
}

class ValueReactor : public Orb::EntityReactor<Counter::NotifieeConst> {
 public:
  explicit ValueReactor(const Counter* c) : EntityReactor(c) {}
};

TEST(NotifieeTest, OnlyOneEntityReactorIsActiveAtATime) {
  auto counter = Orb::allocate<Counter>("c");
  auto first = Orb::allocate<ValueReactor>(counter.ptr());
  EXPECT_EQ(counter->activeReactor(), first.ptr());
  try {
    auto second = Orb::allocate<ValueReactor>(counter.ptr());
    FAIL() << "a second reactor was allowed";
  } catch (const Orb::InternalException& e) {
    EXPECT_STREQ(e.what(), "entity reactor is already active");
  }
  first = nullptr;
  EXPECT_EQ(counter->activeReactor(), nullptr);
  auto third = Orb::allocate<ValueReactor>(counter.ptr());
  EXPECT_EQ(counter->activeReactor(), third.ptr());
}

}  // namespace

namespace {

TEST(NotifieeTest, DeleteAllLeavesWeakObserversWithoutADanglingNotifier) {
  Log log;
  int destroyed = 0;
  auto counter = Orb::allocate<Counter>("c", &destroyed);
  auto weak = Orb::allocate<Watcher>(&log, "w");
  auto strong = Orb::allocate<Watcher>(&log, "s");
  weak->isWeakReferenceIs(true);
  weak->notifierIs(counter);
  strong->notifierIs(counter);
  counter->notifiees().deleteAll();
  EXPECT_EQ(weak->notifierPtr(), nullptr);          // it would not hear of the end
  EXPECT_EQ(strong->notifierPtr(), counter.ptr());  // still holds its reference
  EXPECT_FALSE(strong->isInNotifieeList());
  counter = nullptr;
  EXPECT_EQ(destroyed, 0);
  strong = nullptr;
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
