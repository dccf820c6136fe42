#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Orb/Ptr.h"
#include "Orb/PtrInterface.h"
#include "Retra/remote/FrameChannel.h"
#include "Retra/remote/WireMessage.h"

namespace Retrad {

class Service;

// One client connection of the service: the peer's credentials as the kernel gave them on
// accept, the handshake, and the commands of each read, handed to the service as one batch
// (whose writes are committed together before any of them is acknowledged).
//
// Ownership: the service holds each session until it closes; the session holds its channel.
class ClientSession : public Orb::PtrInterface, private Retra::Wire::FrameChannel::Handler {
 public:
  // A command of a batch: the decoded message, or why it could not be taken.
  struct Incoming {
    Retra::Wire::Message message;
    Retra::Wire::ReplyCode refusal = Retra::Wire::ReplyCode::ok;
    std::string reason;
  };

  ClientSession(Service* service, int descriptor, uid_t uid, pid_t pid, size_t maxQueued);

  [[nodiscard]] uid_t uid() const noexcept { return uid_; }
  [[nodiscard]] pid_t pid() const noexcept { return pid_; }
  [[nodiscard]] const std::string& clientName() const noexcept { return clientName_; }
  [[nodiscard]] size_t queuedBytes() const noexcept { return channel_->queuedBytes(); }

  void send(const std::string& payload) { channel_->send(payload); }
  void reply(uint64_t id, Retra::Wire::ReplyCode code, std::string_view text);
  // Closes the connection from this side (no `sessionClosed` call follows).
  void close() { channel_->close(); }

 protected:
  ~ClientSession() override = default;

 private:
  void onFrame(std::string_view payload) override;
  void onBatchEnd() override;
  void onOversize() override;
  void onClosed(const std::string& why) override;
  void handleHello(const Retra::Wire::Message& message);

  Service* service_;
  uid_t uid_;
  pid_t pid_;
  Orb::Ptr<Retra::Wire::FrameChannel> channel_;
  bool welcomed_ = false;
  std::string clientName_;
  std::vector<Incoming> batch_;
};

}  // namespace Retrad
