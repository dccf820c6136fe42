#include "Retra/engine/RequestUri.h"

#include <cstdlib>

namespace Retra {

Orb::String textRangeToStr(const UriTextRangeStructA& range) {
  if (!range.first) return Orb::String();
  return Orb::String(range.first, range.afterLast);
}

std::optional<uint16_t> RequestUri::portOf(const Orb::String& portText, const Orb::String& scheme) {
  if (portText.empty()) {
    if (scheme == "https") return 443;
    if (scheme == "http") return 80;
    return 0;
  }
  char* end = nullptr;
  const unsigned long value = std::strtoul(portText.charPtr(), &end, 10);
  if (*end != '\0' && *end != '\n') return std::nullopt;
  return static_cast<uint16_t>(value);
}

std::optional<RequestUri> RequestUri::parsed(const Orb::String& text) {
  UriUriA uri;
  UriParserStateA state;
  state.uri = &uri;
  // A failed parse has released what it allocated.
  if (uriParseUriA(&state, text.charPtr()) != URI_SUCCESS) return std::nullopt;
  RequestUri parts;
  parts.scheme = textRangeToStr(uri.scheme);
  parts.host = textRangeToStr(uri.hostText);
  parts.hostIsAddress = uri.hostData.ip4 != nullptr || uri.hostData.ip6 != nullptr;
  const std::optional<uint16_t> port = portOf(textRangeToStr(uri.portText), parts.scheme);
  uriFreeUriMembersA(&uri);
  if (!port) return std::nullopt;
  parts.port = *port;
  return parts;
}

}  // namespace Retra
