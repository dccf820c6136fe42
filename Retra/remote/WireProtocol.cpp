#include "Retra/remote/WireProtocol.h"

namespace Retra::Wire {

const char* replyCodeName(ReplyCode code) noexcept {
  static constexpr const char* names[] = {
      "ok",         "unknownMessage",  "malformed",         "oversize",
      "invalidKey", "tooManyRequests", "outputPathRefused", "notFound",
      "notAllowed", "storage",         "handshake",         "unavailable"};
  const auto n = uint32_t(code);
  return n <= lastReplyCode ? names[n] : "unknown";
}

const char* messageTypeName(MessageType type) noexcept {
  static constexpr const char* names[] = {
      "none", "hello", "welcome", "writeRequest", "withdraw", "reset",   "list",  "watch",
      "ping", "reply", "listing", "snapshot",     "change",   "removed", "synced"};
  const auto n = uint32_t(type);
  return n <= lastMessageType ? names[n] : "unknown";
}

void appendFrame(std::string& out, std::string_view payload) {
  const auto size = uint32_t(payload.size());
  const char header[frameHeaderBytes] = {char(size >> 24), char(size >> 16), char(size >> 8),
                                         char(size)};
  out.append(header, frameHeaderBytes);
  out.append(payload);
}

}  // namespace Retra::Wire
