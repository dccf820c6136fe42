#include "Orb/Ptr.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

int destroyed = 0;

class Counted : public Orb::PtrInterface {
 protected:
  ~Counted() override { ++destroyed; }
};
class Derived : public Counted {};

TEST(PtrTest, CountsReferencesThroughCopiesCastsAndMovesAndDestroysWithTheLast) {
  destroyed = 0;
  Orb::Ptr<Derived> d = Orb::allocate<Derived>();
  {
    Orb::Ptr<Counted> base = d;
    Orb::Ptr<const Counted> view = base;
    EXPECT_EQ(Orb::ptr_cast<Derived>(base).ptr(), d.ptr());
    EXPECT_EQ(Orb::const_ptr_cast<Counted>(view).ptr(), base.ptr());
    Orb::Ptr<Counted> moved = std::move(base);
    EXPECT_FALSE(base);
    moved = *&moved;  // self-assignment keeps the object
    EXPECT_EQ(d->references(), 3u);
  }
  EXPECT_EQ(d->references(), 1u);
  EXPECT_EQ(destroyed, 0);
  d = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(PtrTest, ThreadSafeSwitchMakesCountsAtomic) {
  Orb::threadSafePointersIs(true);
  Orb::Ptr<Counted> shared = Orb::allocate<Counted>();
  auto copyMany = [&shared] {
    for (int i = 0; i < 100000; ++i) Orb::Ptr<Counted> copy = shared;
  };
  std::thread a(copyMany), b(copyMany), c(copyMany);
  copyMany();
  a.join(), b.join(), c.join();
  Orb::threadSafePointersIs(false);
  EXPECT_EQ(shared->references(), 1u);
}

}  // namespace
