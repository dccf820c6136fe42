#include "Retra/remote/FrameChannel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Orb/ActivityManager.h"
#include "Retra/remote/WireProtocol.h"

namespace Retra::Wire {
namespace {

// A readable turn takes at most this much, so one busy peer cannot hold the loop.
constexpr size_t kReadPerTurn = 1u << 20;
constexpr size_t kReadChunk = 64u << 10;

}  // namespace

class FrameChannel::SocketWatch : public Orb::FileDescriptor::NotifieeConst {
 public:
  explicit SocketWatch(FrameChannel* channel) : channel_(channel) {}
  void onReadableCount() override { channel_->handleReadable(); }
  void onWritableCount() override { channel_->handleWritable(); }

 private:
  FrameChannel* channel_;
};

FrameChannel::FrameChannel(int descriptor, Handler* handler, size_t maxQueued)
    : descriptor_(descriptor), handler_(handler), maxQueued_(maxQueued), reader_(maxFrameBytes) {
  fd_ = Orb::allocate<Orb::FileDescriptor>(Orb::Name("frameChannel"));
  fd_->descriptorIs(descriptor_);
  fd_->nonBlockingIs(true);
  fd_->notifyOnReadableIs(true);
  watch_ = Orb::allocate<SocketWatch>(this);
  watch_->notifierIs(fd_);
}

FrameChannel::~FrameChannel() {
  close();
}

void FrameChannel::send(std::string_view payload) {
  if (!isOpen() || failPending_) return;
  // A peer that stops reading: more than the limit unread, and nothing taken for a second (a
  // burst of one turn goes out to a peer that reads), or far more than the limit at once.
  const size_t queued = queuedBytes();
  if (queued > maxQueued_ && overSince_ < 0) overSince_ = Orb::activityManager()->currentTime();
  if ((queued > maxQueued_ && Orb::activityManager()->currentTime() - overSince_ > kStallSeconds) ||
      queued > kBurstFactor * maxQueued_) {
    // Told from the loop, not from inside the sender's call: the socket shut down reports
    // itself ready at once, where a peer that reads nothing would never make it writable.
    closeReason_ = "outgoing queue over " + std::to_string(maxQueued_) + " bytes";
    failPending_ = true;
    ::shutdown(descriptor_, SHUT_RDWR);
    fd_->notifyOnWritableIs(true);
    return;
  }
  // Written when the socket reports writable, once per loop turn for all the turn's messages,
  // rather than one system call per message.
  appendFrame(out_, payload);
  fd_->notifyOnWritableIs(true);
}

void FrameChannel::close() {
  if (descriptor_ < 0) return;
  // What is queued (a refusal, say) goes out if the socket takes it now.
  if (!failPending_ && queuedBytes() > 0) writeQueued();
  if (watch_) watch_->notifierIs(nullptr);
  fd_->notifyOnReadableIs(false);
  fd_->notifyOnWritableIs(false);
  fd_->descriptorIs(-1);
  ::close(descriptor_);
  descriptor_ = -1;
  out_.clear();
  outStart_ = 0;
}

void FrameChannel::fail(const std::string& why) {
  if (!isOpen()) return;
  if (closeReason_.empty()) closeReason_ = why;
  const std::string reason = closeReason_;
  Orb::Ptr<FrameChannel> keep(this);
  close();
  handler_->onClosed(reason);
}

void FrameChannel::handleReadable() {
  Orb::Ptr<FrameChannel> keep(this);
  if (failPending_) return fail(closeReason_);
  char chunk[kReadChunk];
  size_t taken = 0;
  bool peerClosed = false;
  while (isOpen() && taken < kReadPerTurn) {
    const ssize_t n = ::recv(descriptor_, chunk, sizeof chunk, 0);
    if (n > 0) {
      reader_.append(chunk, size_t(n));
      taken += size_t(n);
      continue;
    }
    if (n == 0) {
      peerClosed = true;
    } else if (errno == EINTR) {
      continue;
    } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
      return fail(std::string("read failed: ") + std::strerror(errno));
    }
    break;
  }
  std::string_view payload;
  while (isOpen() && reader_.next(&payload)) handler_->onFrame(payload);
  if (!isOpen()) return;
  handler_->onBatchEnd();
  if (reader_.oversize()) {
    handler_->onOversize();
    if (isOpen()) writeQueued();
    return fail("frame over " + std::to_string(maxFrameBytes) + " bytes");
  }
  if (peerClosed) fail("peer closed the connection");
}

void FrameChannel::handleWritable() {
  if (failPending_) return fail(closeReason_);
  writeQueued();
}

void FrameChannel::writeQueued() {
  while (queuedBytes() > 0) {
    const ssize_t n =
        ::send(descriptor_, out_.data() + outStart_, queuedBytes(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      outStart_ += size_t(n);
      overSince_ = -1;  // the peer reads
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
      // Told from the loop: the watch reports the broken socket as writable at once.
      closeReason_ = std::string("write failed: ") + std::strerror(errno);
      failPending_ = true;
      fd_->notifyOnWritableIs(true);
      return;
    }
    break;
  }
  if (queuedBytes() == 0) {
    out_.clear();
    outStart_ = 0;
  } else if (outStart_ > out_.size() / 2) {
    out_.erase(0, outStart_);
    outStart_ = 0;
  }
  fd_->notifyOnWritableIs(queuedBytes() > 0);
}

}  // namespace Retra::Wire
