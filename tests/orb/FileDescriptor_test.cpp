#include "Orb/FileDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "orb/support/OrbTest.h"

namespace {

class Watcher : public Orb::FileDescriptor::NotifieeConst {
 public:
  int readable = 0;
  std::function<void(Watcher&)> onReadable;
  void onReadableCount() override {
    ++readable;
    if (onReadable) onReadable(*this);
  }
};

class FileDescriptorTest : public OrbTest::LoopTest {
 protected:
  Orb::Ptr<Orb::FileDescriptor> newDescriptor(int descriptor) {
    auto fd = Orb::allocate<Orb::FileDescriptor>(Orb::Name());
    fd->descriptorIs(descriptor);
    fd->notifyOnReadableIs(true);
    return fd;
  }
  // A few idle turns: enough for the loop to report anything that is ready.
  void runTurns() {
    for (int i = 0; i < 3; ++i) manager->runOnce(0.005);
  }
  bool runUntil(const std::function<bool()>& done) { return manager->runUntil(done, 10.0); }
  OrbTest::SocketPair pair;
};

TEST_F(FileDescriptorTest, WatchingMakesNonBlockingAndReportsEachReadinessUntilDrained) {
  auto fd = newDescriptor(pair.fd[0]);
  EXPECT_TRUE(::fcntl(pair.fd[0], F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(::write(pair.fd[1], "x", 1), 1);
  EXPECT_TRUE(runUntil([&] { return fd->readableCount() > 0; }));
  char byte;
  EXPECT_EQ(::read(pair.fd[0], &byte, 1), 1);
  runTurns();
  const uint64_t drained = fd->readableCount();
  runTurns();
  EXPECT_EQ(fd->readableCount(), drained);  // drained: not reported again

  // Readable and writable at once: one turn reports both.
  EXPECT_EQ(::write(pair.fd[1], "y", 1), 1);
  fd->notifyOnWritableIs(true);
  EXPECT_TRUE(runUntil([&] { return fd->readableCount() > drained; }));
  EXPECT_GT(fd->writableCount(), 0u);
}

TEST_F(FileDescriptorTest, WatchMovesToANewerWatcherOfTheSameDescriptor) {
  auto fd = newDescriptor(pair.fd[0]), newer = newDescriptor(pair.fd[0]);
  EXPECT_FALSE(fd->isWatching());
  EXPECT_EQ(::write(pair.fd[1], "x", 1), 1);
  EXPECT_TRUE(runUntil([&] { return newer->readableCount() > 0; }));
  EXPECT_EQ(fd->readableCount(), 0u);
}

TEST_F(FileDescriptorTest, CallbacksMayLeaveDestroyOthersThrowOrDropTheDescriptor) {
  traceFaults();
  auto fd = newDescriptor(pair.fd[0]);
  std::vector<Orb::Ptr<Watcher>> w;
  for (int i = 0; i < 5; ++i) {
    w.push_back(Orb::allocate<Watcher>());
    w.back()->notifierIs(fd);
    if (i != 3) w.back()->isWeakReferenceIs(true);  // the descriptor dies with the last strong one
  }
  w[0]->onReadable = [](Watcher& self) { self.notifierIs(nullptr); };
  w[1]->onReadable = [](Watcher&) { throw std::runtime_error("reader jammed"); };
  w[2]->onReadable = [&](Watcher&) { w[3] = nullptr; };
  w[3]->onReadable = [](Watcher&) { ADD_FAILURE() << "a destroyed observer was called"; };
  w[4]->onReadable = [&](Watcher& self) {
    if (self.readable == 2) fd = nullptr;
  };
  EXPECT_EQ(::write(pair.fd[1], "x", 1), 1);
  EXPECT_TRUE(runUntil([&] { return !fd; }));
  EXPECT_EQ(w[0]->readable, 1);
  EXPECT_EQ(w[4]->notifierPtr(), nullptr);
  EXPECT_CONTAINS(traced.str(), "reader jammed");
}

}  // namespace
