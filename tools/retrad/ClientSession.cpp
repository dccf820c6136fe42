#include "retrad/ClientSession.h"

#include "Orb/Exception.h"
#include "retrad/Service.h"
#include "retrad/ServiceTrace.h"

namespace Retrad {

using Retra::Wire::MessageType;
using Retra::Wire::ReplyCode;

ClientSession::ClientSession(Service* service, int descriptor, uid_t uid, pid_t pid,
                             size_t maxQueued)
    : service_(service), uid_(uid), pid_(pid) {
  channel_ = Orb::allocate<Retra::Wire::FrameChannel>(
      descriptor, static_cast<Retra::Wire::FrameChannel::Handler*>(this), maxQueued);
}

void ClientSession::reply(uint64_t id, ReplyCode code, std::string_view text) {
  send(Retra::Wire::encodeReply(id, code, text));
}

void ClientSession::onFrame(std::string_view payload) {
  Incoming incoming;
  const uint32_t type = Retra::Wire::messageTypeOf(payload);
  try {
    incoming.message = Retra::Wire::decodeMessage(payload);
  } catch (const Orb::ParseException& e) {
    incoming.message.type = MessageType::ping;  // answered by its refusal only
    const bool known = type != 0 && type <= Retra::Wire::lastMessageType;
    incoming.refusal = known ? ReplyCode::malformed : ReplyCode::unknownMessage;
    incoming.reason =
        known ? std::string(Retra::Wire::messageTypeName(MessageType(type))) + ": " + e.what()
              : "unknown message type " + std::to_string(type);
  }
  if (!welcomed_) {
    if (incoming.refusal == ReplyCode::ok && incoming.message.type == MessageType::hello) {
      return handleHello(incoming.message);
    }
    reply(0, ReplyCode::handshake, "the first message must be hello");
    RETRAD_TRACE(2, "connection of uid " << uid_ << " pid " << pid_ << " refused: no hello");
    Orb::Ptr<ClientSession> keep(this);
    close();
    service_->sessionClosed(this, "no hello");
    return;
  }
  batch_.push_back(std::move(incoming));
}

void ClientSession::handleHello(const Retra::Wire::Message& message) {
  clientName_ = message.text;
  if (message.versionMin > Retra::Wire::protocolVersion ||
      message.versionMax < Retra::Wire::protocolVersion) {
    reply(0, ReplyCode::handshake,
          "no common protocol version (this service speaks " +
              std::to_string(Retra::Wire::protocolVersion) + ")");
  } else if (const std::string refusal = service_->refusalOf(*this); !refusal.empty()) {
    reply(0, ReplyCode::handshake, refusal);
  } else {
    welcomed_ = true;
    send(Retra::Wire::encodeWelcome(uid_, service_->version()));
    RETRAD_TRACE(2, "connection of uid " << uid_ << " pid " << pid_ << " (" << clientName_ << ")");
    return;
  }
  RETRAD_TRACE(2, "connection of uid " << uid_ << " pid " << pid_ << " refused at hello");
  Orb::Ptr<ClientSession> keep(this);
  close();
  service_->sessionClosed(this, "refused at hello");
}

void ClientSession::onBatchEnd() {
  if (batch_.empty()) return;
  std::vector<Incoming> batch = std::move(batch_);
  batch_.clear();
  Orb::Ptr<ClientSession> keep(this);
  service_->runBatch(*this, batch);
}

void ClientSession::onOversize() {
  reply(0, ReplyCode::oversize,
        "frame over " + std::to_string(Retra::Wire::maxFrameBytes) + " bytes");
}

void ClientSession::onClosed(const std::string& why) {
  Orb::Ptr<ClientSession> keep(this);
  service_->sessionClosed(this, why);
}

}  // namespace Retrad
