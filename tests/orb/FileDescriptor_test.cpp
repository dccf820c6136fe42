#include "Orb/FileDescriptor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

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

TEST_F(FileDescriptorTest, ReportsWhatIsWatchedAndReadyOnALoopbackConnection) {
  int listener = ::socket(AF_INET, SOCK_STREAM, 0), client = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(::bind(listener, any, length) | ::listen(listener, 1), 0);
  ASSERT_EQ(::getsockname(listener, any, &length) | ::connect(client, any, length), 0);
  for (int& end : pair.fd) ::close(end);
  pair.fd[0] = ::accept(listener, nullptr, nullptr);  // both closed with the pair
  pair.fd[1] = client;
  ::close(listener);

  auto fd = newDescriptor(pair.fd[0]);
  EXPECT_TRUE(::fcntl(pair.fd[0], F_GETFL) & O_NONBLOCK);  // watching makes it non-blocking
  fd->notifyOnWritableIs(true);
  EXPECT_TRUE(runUntil([&] { return fd->writableCount() > 0; }));  // writable at once
  fd->notifyOnWritableIs(false);
  runTurns();
  const uint64_t writable = fd->writableCount();
  EXPECT_EQ(fd->readableCount(), 0u);             // nothing sent yet
  ASSERT_EQ(::send(client, "!", 1, MSG_OOB), 1);  // urgent data is an exceptional condition
  EXPECT_TRUE(runUntil([&] { return fd->exceptionPendingCount() > 0; }));
  char bytes[2];
  EXPECT_EQ(::recv(pair.fd[0], bytes, 1, MSG_OOB), 1);
  EXPECT_EQ(::send(client, "x", 1, 0), 1);
  EXPECT_TRUE(runUntil([&] { return fd->readableCount() > 0; }));
  EXPECT_EQ(::recv(pair.fd[0], bytes, 2, 0), 1);
  runTurns();
  const uint64_t drained = fd->readableCount();
  runTurns();
  EXPECT_EQ(fd->readableCount(), drained);
  EXPECT_EQ(fd->writableCount(), writable);
  ::shutdown(client, SHUT_WR);  // the peer closing is readable: the next read sees end of file
  EXPECT_TRUE(runUntil([&] { return fd->readableCount() > drained; }));
}

TEST_F(FileDescriptorTest, WatchMovesWithTheDescriptorAndToANewerWatcher) {
  OrbTest::SocketPair other;
  auto fd = newDescriptor(pair.fd[0]);
  fd->descriptorIs(other.fd[0]);
  EXPECT_EQ(::write(pair.fd[1], "x", 1), 1);
  runTurns();
  EXPECT_EQ(fd->readableCount(), 0u);  // the first pair's data is not ours any more
  auto newer = newDescriptor(other.fd[0]);
  EXPECT_FALSE(fd->isWatching());
  EXPECT_EQ(::write(other.fd[1], "x", 1), 1);
  EXPECT_TRUE(runUntil([&] { return newer->readableCount() > 0; }));
  EXPECT_EQ(fd->readableCount(), 0u);
  auto unwatched = Orb::allocate<Orb::FileDescriptor>(Orb::Name());
  unwatched->descriptorIs(pair.fd[1]);
  unwatched->nonBlockingIs(true);  // changes the descriptor at once
  EXPECT_TRUE(::fcntl(pair.fd[1], F_GETFL) & O_NONBLOCK);
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
