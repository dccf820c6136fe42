#include "Orb/FileDescriptor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "Orb/ActivityManager.h"
#include "Orb/Exception.h"
#include "Orb/Trace.h"

namespace {

// Counts the callbacks it gets and runs optional actions inside them.
class Watcher : public Orb::FileDescriptor::NotifieeConst {
 public:
  int readable = 0, writable = 0, exceptional = 0;
  std::function<void(Watcher&)> onReadable;

  void onReadableCount() override {
    ++readable;
    if (onReadable) onReadable(*this);
  }
  void onWritableCount() override { ++writable; }
  void onExceptionPendingCount() override { ++exceptional; }
};

struct SocketPair {
  SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
  ~SocketPair() {
    for (int f : fd) {
      if (f >= 0) ::close(f);
    }
  }
  void send(int end, const char* text = "x") const { EXPECT_EQ(::write(fd[end], text, 1), 1); }
  int fd[2] = {-1, -1};
};

bool hasNonBlockFlag(int descriptor) {
  return ::fcntl(descriptor, F_GETFL) & O_NONBLOCK;
}

class FileDescriptorTest : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(manager->runUntil([this] { return manager->liveHandles() == 0; }, 0.5));
  }

  Orb::Ptr<Orb::FileDescriptor> newDescriptor(int descriptor) {
    auto fd = Orb::allocate<Orb::FileDescriptor>(Orb::Name());
    fd->descriptorIs(descriptor);
    return fd;
  }

  Orb::Ptr<Watcher> newWatcher(const Orb::Ptr<Orb::FileDescriptor>& fd) {
    auto watcher = Orb::allocate<Watcher>();
    watcher->notifierIs(fd);
    return watcher;
  }

  // A few idle turns: enough for the loop to report anything that is ready.
  void runTurns() {
    for (int i = 0; i < 3; ++i) manager->runOnce(0.005);
  }

  Orb::ActivityManager* manager = Orb::activityManager();
};

TEST_F(FileDescriptorTest, SocketIsWritableAtOnce) {
  SocketPair pair;
  auto fd = newDescriptor(pair.fd[0]);
  auto watcher = newWatcher(fd);
  EXPECT_FALSE(fd->isWatching());
  fd->notifyOnWritableIs(true);
  EXPECT_TRUE(fd->isWatching());
  EXPECT_TRUE(manager->runUntil([&] { return fd->writableCount() > 0; }, 1.0));
  EXPECT_EQ(watcher->writable, static_cast<int>(fd->writableCount()));
  EXPECT_EQ(fd->readableCount(), 0u);
}

TEST_F(FileDescriptorTest, ReadableOnlyWhileThePeerHasWrittenData) {
  SocketPair pair;
  auto fd = newDescriptor(pair.fd[0]);
  auto watcher = newWatcher(fd);
  fd->notifyOnReadableIs(true);
  runTurns();
  EXPECT_EQ(fd->readableCount(), 0u);

  pair.send(1);
  EXPECT_TRUE(manager->runUntil([&] { return fd->readableCount() > 0; }, 1.0));
  EXPECT_EQ(watcher->readable, static_cast<int>(fd->readableCount()));
  char byte;
  EXPECT_EQ(::read(pair.fd[0], &byte, 1), 1);
  runTurns();
  const uint64_t drained = fd->readableCount();
  runTurns();
  EXPECT_EQ(fd->readableCount(), drained);

  // The peer closing counts as readable: the next read sees end of file.
  ::close(pair.fd[1]);
  pair.fd[1] = -1;
  EXPECT_TRUE(manager->runUntil([&] { return fd->readableCount() > drained; }, 1.0));
  EXPECT_EQ(fd->exceptionPendingCount(), 0u);
}

TEST_F(FileDescriptorTest, WatchFlagsSelectWhatIsReported) {
  SocketPair pair;
  pair.send(1);  // readable and writable from now on
  auto fd = newDescriptor(pair.fd[0]);
  auto watcher = newWatcher(fd);

  fd->notifyOnReadableIs(true);
  runTurns();
  EXPECT_GT(fd->readableCount(), 0u);
  EXPECT_EQ(fd->writableCount(), 0u);

  fd->notifyOnReadableIs(false);
  fd->notifyOnWritableIs(true);
  runTurns();  // lets the watch change settle before counting
  const uint64_t readable = fd->readableCount();
  runTurns();
  EXPECT_EQ(fd->readableCount(), readable);
  EXPECT_GT(fd->writableCount(), 0u);

  fd->notifyOnWritableIs(false);
  EXPECT_FALSE(fd->isWatching());
  const uint64_t writable = fd->writableCount();
  runTurns();
  EXPECT_EQ(fd->writableCount(), writable);
  EXPECT_EQ(fd->readableCount(), readable);
  EXPECT_EQ(manager->liveHandles(), 0u);
}

TEST_F(FileDescriptorTest, NoDescriptorStopsNotificationsAndANewOneMovesTheWatch) {
  SocketPair first, second;
  auto fd = newDescriptor(first.fd[0]);
  auto watcher = newWatcher(fd);
  fd->notifyOnReadableIs(true);
  first.send(1);
  EXPECT_TRUE(manager->runUntil([&] { return fd->readableCount() > 0; }, 1.0));

  fd->descriptorIs(-1);
  EXPECT_EQ(fd->descriptor(), -1);
  EXPECT_FALSE(fd->isWatching());
  const uint64_t stopped = fd->readableCount();
  runTurns();
  EXPECT_EQ(fd->readableCount(), stopped);
  EXPECT_EQ(manager->liveHandles(), 0u);

  fd->descriptorIs(second.fd[0]);
  EXPECT_TRUE(fd->isWatching());
  runTurns();
  EXPECT_EQ(fd->readableCount(), stopped);  // the first pair's data is not ours any more
  second.send(1);
  EXPECT_TRUE(manager->runUntil([&] { return fd->readableCount() > stopped; }, 1.0));
}

TEST_F(FileDescriptorTest, NonBlockingSetsAndClearsTheFlag) {
  SocketPair pair;
  ASSERT_FALSE(hasNonBlockFlag(pair.fd[0]));
  auto fd = newDescriptor(pair.fd[0]);
  EXPECT_FALSE(fd->nonBlocking());
  fd->nonBlockingIs(true);
  EXPECT_TRUE(fd->nonBlocking());
  EXPECT_TRUE(hasNonBlockFlag(pair.fd[0]));
  fd->nonBlockingIs(false);
  EXPECT_FALSE(hasNonBlockFlag(pair.fd[0]));

  // A wish made before there is a descriptor applies to the descriptor set later.
  auto other = newDescriptor(-1);
  other->nonBlockingIs(true);
  ASSERT_FALSE(hasNonBlockFlag(pair.fd[1]));
  other->descriptorIs(pair.fd[1]);
  EXPECT_TRUE(hasNonBlockFlag(pair.fd[1]));

  // Watching makes the descriptor non-blocking, and the attribute says so.
  fd->notifyOnReadableIs(true);
  EXPECT_TRUE(hasNonBlockFlag(pair.fd[0]));
  EXPECT_TRUE(fd->nonBlocking());
}

TEST_F(FileDescriptorTest, ObserversMayLeaveOrDestroyOthersInsideACallback) {
  SocketPair pair;
  auto fd = newDescriptor(pair.fd[0]);
  auto leaver = newWatcher(fd);
  auto destroyer = newWatcher(fd);
  auto victim = newWatcher(fd);
  int victimReadable = 0;
  victim->onReadable = [&](Watcher&) { ++victimReadable; };
  leaver->onReadable = [](Watcher& self) { self.notifierIs(nullptr); };
  destroyer->onReadable = [&](Watcher&) { victim = nullptr; };
  fd->notifyOnReadableIs(true);
  pair.send(1);

  EXPECT_TRUE(manager->runUntil([&] { return fd->readableCount() >= 2; }, 1.0));
  EXPECT_EQ(leaver->readable, 1);
  EXPECT_GE(destroyer->readable, 2);
  EXPECT_EQ(victimReadable, 0);
  EXPECT_EQ(fd->notifiees().members(), 1u);
}

TEST_F(FileDescriptorTest, CallbackMayDropTheLastReferenceToTheDescriptor) {
  SocketPair pair;
  auto fd = newDescriptor(pair.fd[0]);
  auto watcher = newWatcher(fd);
  watcher->isWeakReferenceIs(true);
  watcher->onReadable = [&](Watcher&) { fd = nullptr; };
  fd->notifyOnReadableIs(true);
  pair.send(1);
  EXPECT_TRUE(manager->runUntil([&] { return !fd; }, 1.0));
  EXPECT_EQ(watcher->readable, 1);
  EXPECT_EQ(watcher->notifierPtr(), nullptr);
}

TEST_F(FileDescriptorTest, ExceptionInACallbackIsTracedAndTheLoopGoesOn) {
  std::ostringstream traced;
  Orb::TraceHandle& trace = Orb::frameworkTrace();
  const uint32_t levels = trace.levels();
  trace.levelsIs(1u << 1);
  Orb::TraceHandle::outputIs(&traced);

  SocketPair pair;
  auto fd = newDescriptor(pair.fd[0]);
  auto thrower = newWatcher(fd);
  auto next = newWatcher(fd);
  thrower->onReadable = [](Watcher&) { throw std::runtime_error("reader jammed"); };
  fd->notifyOnReadableIs(true);
  pair.send(1);
  EXPECT_TRUE(manager->runUntil([&] { return fd->readableCount() >= 2; }, 1.0));

  Orb::TraceHandle::outputIs(nullptr);
  trace.levelsIs(levels);
  EXPECT_GE(next->readable, 2);
  EXPECT_NE(traced.str().find("reader jammed"), std::string::npos) << traced.str();
}

TEST_F(FileDescriptorTest, UrgentDataIsAnExceptionalCondition) {
  // Out-of-band data on a loopback TCP connection raises POLLPRI.
  int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
  int client = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  int server = ::accept(listener, nullptr, nullptr);
  ASSERT_GE(server, 0);

  {
    auto fd = newDescriptor(server);
    auto watcher = newWatcher(fd);
    fd->notifyOnReadableIs(true);
    runTurns();
    EXPECT_EQ(fd->exceptionPendingCount(), 0u);
    ASSERT_EQ(::send(client, "!", 1, MSG_OOB), 1);
    EXPECT_TRUE(manager->runUntil([&] { return fd->exceptionPendingCount() > 0; }, 1.0));
    EXPECT_EQ(watcher->exceptional, static_cast<int>(fd->exceptionPendingCount()));
  }
  ::close(client);
  ::close(server);
  ::close(listener);
}

TEST_F(FileDescriptorTest, SecondWatcherOfADescriptorTakesTheWatchOver) {
  SocketPair pair;
  auto stale = newDescriptor(pair.fd[0]);
  stale->notifyOnReadableIs(true);
  auto current = newDescriptor(pair.fd[0]);
  current->notifyOnReadableIs(true);
  EXPECT_FALSE(stale->isWatching());
  EXPECT_TRUE(current->isWatching());
  pair.send(1);
  EXPECT_TRUE(manager->runUntil([&] { return current->readableCount() > 0; }, 1.0));
  EXPECT_EQ(stale->readableCount(), 0u);
}

TEST_F(FileDescriptorTest, DescriptorTheLoopCannotWatchIsRefused) {
  std::FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  auto fd = newDescriptor(::fileno(file));
  {
    Orb::Expect expect;
    expect.add(Orb::ExceptionId::range);
    EXPECT_THROW(fd->notifyOnReadableIs(true), Orb::RangeException);
  }
  EXPECT_FALSE(fd->isWatching());
  EXPECT_EQ(manager->liveHandles(), 0u);
  fd->descriptorIs(-1);
  std::fclose(file);
}

}  // namespace
