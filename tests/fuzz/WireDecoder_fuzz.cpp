// What a client or the service does with the bytes its peer sends: the frame reader cuts them
// into frames, each frame is decoded as a message, and snapshots and changes are applied to a
// response. Over arbitrary bytes:
//
// - the frames do not depend on how the bytes arrive: the input fed whole and fed in small
//   pieces gives the same frames, and what is not handed out is still pending;
// - a frame that is no valid message, or a response part that does not apply, raises the parse
//   exception and nothing else;
// - whatever state the response reaches, its snapshot carries all of it: applied to a fresh
//   response, it gives one whose snapshot is the same bytes.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Orb/AttrLog.h"
#include "Orb/Ptr.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"
#include "Retra/remote/FrameReader.h"
#include "Retra/remote/ResponseStream.h"
#include "Retra/remote/WireMessage.h"
#include "fuzz/FuzzCheck.h"

namespace {

namespace Wire = Retra::Wire;

// Small enough that inputs reach the limit.
constexpr size_t kMaxFrame = 1024;

// The frames of `input`, appended whole or in pieces of 1 to 7 bytes, copied out as they come.
std::vector<std::string> frames(std::string_view input, bool whole, bool* oversize) {
  Wire::FrameReader reader(kMaxFrame);
  std::vector<std::string> out;
  size_t handedOut = 0;
  for (size_t at = 0, i = 0; at < input.size(); ++i) {
    const size_t n = whole ? input.size() : std::min(i % 7 + 1, input.size() - at);
    reader.append(input.data() + at, n);
    at += n;
    std::string_view payload;
    while (reader.next(&payload)) {
      out.emplace_back(payload);
      handedOut += Wire::frameHeaderBytes + payload.size();
    }
    if (!reader.oversize()) FUZZ_CHECK(handedOut + reader.pending() == at);
  }
  *oversize = reader.oversize();
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  bool oversize = false;
  bool oversizeInPieces = false;
  const std::vector<std::string> whole = frames(input, true, &oversize);
  FUZZ_CHECK(frames(input, false, &oversizeInPieces) == whole && oversize == oversizeInPieces);

  FuzzCheck::ExpectParse expect;
  const Retra::RequestKey key(Retra::GET, "http://127.0.0.1/");
  const Orb::Ptr<Retra::Response> response = Orb::allocate<Retra::Response>(key);
  for (const std::string& payload : whole) {
    (void)FuzzCheck::rejects([&] {
      const Wire::Message message = Wire::decodeMessage(payload);
      FUZZ_CHECK(Wire::messageTypeOf(payload) == uint32_t(message.type));
      const bool snapshot = message.type == Wire::MessageType::snapshot;
      if (!snapshot && message.type != Wire::MessageType::change) return;
      FUZZ_CHECK(message.rest.data() >= payload.data() &&
                 message.rest.data() + message.rest.size() == payload.data() + payload.size());
      Orb::AttrLogIn in(message.rest);
      snapshot ? Wire::applySnapshot(in, *response) : Wire::applyChange(in, *response);
    });
  }

  const std::string snapshot = Wire::encodeSnapshot(*response, true);
  const Orb::Ptr<Retra::Response> copy = Orb::allocate<Retra::Response>(key);
  Orb::AttrLogIn in(Wire::decodeMessage(snapshot).rest);
  Wire::applySnapshot(in, *copy);
  FUZZ_CHECK(Wire::encodeSnapshot(*copy, true) == snapshot);
  return 0;
}
