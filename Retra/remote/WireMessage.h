#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Retra/model/Enumerations.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestKey.h"
#include "Retra/remote/WireProtocol.h"

namespace Retra::Wire {

// One line of a listing: a request of some uid with the state of its response.
struct ListedRequest {
  uint32_t uid = 0;
  Request request;
  RequestState state = stateNotInit;
  uint16_t statusCode = 0;
  Error lastError = errNone;
  double lastUpdateTime = 0;
};

// A decoded message: its type and the fields that type carries (see WireProtocol.h); the others
// keep their defaults. `flag` is `ephemeral` of writeRequest, `allUsers` of list and `everything`
// of watch. For snapshot and change, `rest` is the encoded response part, inside the payload
// given to `decodeMessage` (read it with ResponseStream.h before the payload goes).
struct Message {
  MessageType type = MessageType::ping;
  uint64_t id = 0;
  bool flag = false;
  Request request;
  RequestKey key;
  ReplyCode code = ReplyCode::ok;
  std::string text;  // reply text, client name or service version
  uint32_t versionMin = 0;
  uint32_t versionMax = 0;
  uint32_t uid = 0;
  std::vector<ListedRequest> listing;
  std::string_view rest;
};

// Reads one frame's payload. A payload that is no valid message (a type out of range, a field
// missing or of the wrong kind, bytes after the last field) raises Orb::ParseException; a type
// number nobody knows raises it too, with `unknownMessageType` true in the reply code sense:
// check `isKnownMessageType` first to tell the two apart.
[[nodiscard]] Message decodeMessage(std::string_view payload);
// The type number at the start of a payload, or 0 when there is none.
[[nodiscard]] uint32_t messageTypeOf(std::string_view payload) noexcept;

[[nodiscard]] std::string encodeHello(std::string_view clientName);
[[nodiscard]] std::string encodeWelcome(uint32_t uid, std::string_view serviceVersion);
[[nodiscard]] std::string encodeWriteRequest(uint64_t id, bool ephemeral, const Request& request);
// withdraw or reset of one key.
[[nodiscard]] std::string encodeKeyCommand(MessageType type, uint64_t id, const RequestKey& key);
[[nodiscard]] std::string encodeList(uint64_t id, bool allUsers);
// A watch of every response of the uid (`everything`), or of `key`'s only.
[[nodiscard]] std::string encodeWatch(uint64_t id, bool everything, const RequestKey& key);
[[nodiscard]] std::string encodePing(uint64_t id);
[[nodiscard]] std::string encodeReply(uint64_t id, ReplyCode code, std::string_view text);
[[nodiscard]] std::string encodeListing(uint64_t id, const std::vector<ListedRequest>& listing);
[[nodiscard]] std::string encodeRemoved(const RequestKey& key);
[[nodiscard]] std::string encodeSynced(uint64_t id);

}  // namespace Retra::Wire
