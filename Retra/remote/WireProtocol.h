#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The wire protocol between the service `retrad` and its clients, over a Unix stream socket.
//
// Framing: each message is one frame, a 4-byte big-endian payload length and the payload. A
// frame longer than `maxFrameBytes` is refused (the peer is told and disconnected: the stream
// cannot be trusted past it).
//
// Payload: an attribute log (Orb/AttrLog.h): the message type as an enumeration, then the
// message's fields in the order below, and nothing after them.
//
//   client -> service                          service -> client
//   hello(versionMin, versionMax, clientName)  welcome(version, uid, serviceVersion)
//   writeRequest(id, ephemeral, Request)       reply(id, ReplyCode, text)     to every command
//   withdraw(id, RequestKey)                   listing(id, [ListedRequest])   before list's reply
//   reset(id, RequestKey)                      snapshot(RequestKey, every attribute)
//   list(id, allUsers)                         change(RequestKey, one change)
//   watch(id, everything, RequestKey)          removed(RequestKey)
//   ping(id)                                   synced(id)   every snapshot of a watch was sent
//
// The client speaks first; the service answers `hello` with `welcome` (the version both speak and
// the client's uid as the service saw it) or with a reply carrying `replyHandshake` and closes.
// Commands carry an id the client picks; the service answers each with one `reply` of that id,
// in the order the commands came. A watch sends a `snapshot` of each response it covers, then
// `synced`, then each `change` and `removed` as they happen, in the order they happened.
namespace Retra::Wire {

inline constexpr uint32_t protocolVersion = 1;
inline constexpr size_t frameHeaderBytes = 4;
inline constexpr size_t maxFrameBytes = 16u << 20;
// Bodies travel in pieces of at most this many bytes (a snapshot's body included), so that no
// frame carrying a body comes near `maxFrameBytes`.
inline constexpr size_t bodyPieceBytes = 1u << 20;

enum class MessageType : uint32_t {
  hello = 1,
  welcome = 2,
  writeRequest = 3,
  withdraw = 4,
  reset = 5,
  list = 6,
  watch = 7,
  ping = 8,
  reply = 9,
  listing = 10,
  snapshot = 11,
  change = 12,
  removed = 13,
  synced = 14,
};
inline constexpr uint32_t lastMessageType = uint32_t(MessageType::synced);

// The outcome of a command.
enum class ReplyCode : uint32_t {
  ok = 0,
  unknownMessage = 1,     // a message type the service does not know, or one only it sends
  malformed = 2,          // the payload is no valid attribute log of that message
  oversize = 3,           // the frame is longer than maxFrameBytes
  invalidKey = 4,         // no URI, or a URI with characters a request line cannot carry
  tooManyRequests = 5,    // the uid has --max-requests requests already
  outputPathRefused = 6,  // an output path the service will not open for this client
  notFound = 7,           // no request of that key
  notAllowed = 8,         // the peer may not do this (listing other uids)
  storage = 9,            // the request store failed; nothing was changed
  handshake = 10,         // no hello first, or no common version
  unavailable = 11,       // never on the wire: the client library could not reach the service
};
inline constexpr uint32_t lastReplyCode = uint32_t(ReplyCode::unavailable);

// "ok", "unknownMessage", ...; "unknown" for a number that is no code.
[[nodiscard]] const char* replyCodeName(ReplyCode code) noexcept;
[[nodiscard]] const char* messageTypeName(MessageType type) noexcept;

// The frame of `payload`: its length, big-endian, then the bytes, appended to `out`.
void appendFrame(std::string& out, std::string_view payload);

}  // namespace Retra::Wire
