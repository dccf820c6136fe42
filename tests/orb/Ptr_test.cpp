#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "Orb/Ptr.h"

namespace {

class Counted : public Orb::PtrInterface {
 public:
  explicit Counted(int* destroyed) : destroyed_(destroyed) {}

 protected:
  ~Counted() override { ++*destroyed_; }

 private:
  int* destroyed_;
};

class Derived : public Counted {
 public:
  using Counted::Counted;
};

TEST(PtrTest, CountsReferencesAndDestroysWithTheLast) {
  int destroyed = 0;
  Orb::Ptr<Counted> a = Orb::allocate<Counted>(&destroyed);
  EXPECT_EQ(a->references(), 1u);
  {
    Orb::Ptr<Counted> b = a;
    Orb::Ptr<const Counted> c = b;
    EXPECT_EQ(a->references(), 3u);
    Orb::Ptr<Counted> moved = std::move(b);
    EXPECT_FALSE(b);
    EXPECT_EQ(a->references(), 3u);
  }
  EXPECT_EQ(a->references(), 1u);
  EXPECT_EQ(destroyed, 0);
  a = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(PtrTest, ConvertsToBaseAndCastsBack) {
  int destroyed = 0;
  Orb::Ptr<Derived> d = Orb::allocate<Derived>(&destroyed);
  Orb::Ptr<Counted> base = d;
  EXPECT_TRUE(base == d);
  Orb::Ptr<Derived> back = Orb::ptr_cast<Derived>(base);
  EXPECT_EQ(back.ptr(), d.ptr());
  Orb::Ptr<const Counted> view = d;
  EXPECT_EQ(Orb::const_ptr_cast<Counted>(view).ptr(), base.ptr());
  d = nullptr;
  base = nullptr;
  back = nullptr;
  EXPECT_EQ(destroyed, 0);
  view = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(PtrTest, SelfAssignmentKeepsTheObject) {
  int destroyed = 0;
  Orb::Ptr<Counted> a = Orb::allocate<Counted>(&destroyed);
  Orb::Ptr<Counted>& alias = a;
  a = alias;
  EXPECT_EQ(a->references(), 1u);
  EXPECT_EQ(destroyed, 0);
}

TEST(PtrTest, ThreadSafeSwitchMakesCountsAtomic) {
  Orb::threadSafePointersIs(true);
  int destroyed = 0;
  {
    Orb::Ptr<Counted> shared = Orb::allocate<Counted>(&destroyed);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&shared] {
        for (int i = 0; i < 100000; ++i) Orb::Ptr<Counted> copy = shared;
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(shared->references(), 1u);
  }
  EXPECT_EQ(destroyed, 1);
  Orb::threadSafePointersIs(false);
  EXPECT_FALSE(Orb::threadSafePointers());
}

}  // namespace
