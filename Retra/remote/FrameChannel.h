#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Orb/FileDescriptor.h"
#include "Orb/Ptr.h"
#include "Orb/PtrInterface.h"
#include "Retra/remote/FrameReader.h"

namespace Retra::Wire {

// One end of a framed stream socket on the activity loop: frames in through a handler, frames
// out through a queue that is written as the socket takes it. Both the service and the client
// library speak through it.
//
//   struct Peer : FrameChannel::Handler {
//     void onFrame(std::string_view payload) override { ... }
//     void onClosed(const std::string& why) override { ... }
//   };
//   auto channel = Orb::allocate<FrameChannel>(fd, &peer, maxQueuedBytes);
//   channel->send(payload);
//
// Ownership: the channel owns the descriptor from construction and closes it in `close()` or
// when destroyed. The handler is not owned and must outlive the channel or `close()` it first.
//
// Callbacks, all from the activity loop, never from inside `send` or `close`:
// - `onFrame` for each complete frame, in order; the payload is valid during the call only.
// - `onBatchEnd` after the frames of one readable turn were handed out (the service commits its
//   store there and then acknowledges).
// - `onClosed` once, when the peer closed, the socket failed, a frame was over the limit or the
//   queue held over `maxQueued` unread bytes for a second, or sixteen times that at once (a peer
//   that stops reading); not after a `close()` of our own.
// After `onClosed` or `close()` nothing is read or written any more.
class FrameChannel : public Orb::PtrInterface {
 public:
  class Handler {
   public:
    virtual void onFrame(std::string_view payload) = 0;
    virtual void onBatchEnd() {}
    // The peer sent a frame over the limit; a last frame sent now (the reason) is written, if
    // the socket takes it at once, before the channel closes and `onClosed` follows.
    virtual void onOversize() {}
    virtual void onClosed(const std::string& why) = 0;

   protected:
    ~Handler() = default;
  };

  FrameChannel(int descriptor, Handler* handler, size_t maxQueued);

  // Queues one frame with `payload` and writes what the socket takes now. Nothing happens on a
  // closed channel.
  void send(std::string_view payload);
  // Closes the socket; queued bytes not yet written are dropped. Idempotent.
  void close();

  [[nodiscard]] bool isOpen() const noexcept { return descriptor_ >= 0; }
  [[nodiscard]] size_t queuedBytes() const noexcept { return out_.size() - outStart_; }
  // Why the channel closed itself (over-long frame, queue over its limit, peer gone); empty
  // while open or after a `close()` of our own.
  [[nodiscard]] const std::string& closeReason() const noexcept { return closeReason_; }
  // Whether the peer sent a frame over the limit (the channel then closed).
  [[nodiscard]] bool oversize() const noexcept { return reader_.oversize(); }

 protected:
  ~FrameChannel() override;

 private:
  class SocketWatch;

  void handleReadable();
  void handleWritable();
  void writeQueued();
  // Closes and tells the handler why.
  void fail(const std::string& why);

  int descriptor_;
  Handler* handler_;
  size_t maxQueued_;
  Orb::Ptr<Orb::FileDescriptor> fd_;
  Orb::Ptr<SocketWatch> watch_;
  FrameReader reader_;
  std::string out_;
  size_t outStart_ = 0;
  std::string closeReason_;
  bool failPending_ = false;
  // When the queue went over the limit with the peer taking nothing since; negative otherwise.
  double overSince_ = -1;
  static constexpr double kStallSeconds = 1.0;
  static constexpr size_t kBurstFactor = 16;
};

}  // namespace Retra::Wire
