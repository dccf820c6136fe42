#include "Retra/engine/RequestUri.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace Retra {

Orb::String textRangeToStr(const UriTextRangeStructA& range) {
  if (!range.first) return Orb::String();
  return Orb::String(range.first, range.afterLast);
}

namespace {

std::string_view rangeView(const UriTextRangeStructA& range) {
  if (!range.first) return {};
  return std::string_view(range.first, size_t(range.afterLast - range.first));
}

// The scheme as a string; the two the engine serves share one buffer per thread, since every
// request names one of them.
Orb::String schemeString(std::string_view scheme) {
  thread_local const Orb::String http("http");
  thread_local const Orb::String https("https");
  if (scheme == http.view()) return http;
  if (scheme == https.view()) return https;
  return Orb::String(scheme);
}

std::optional<uint16_t> portOfText(std::string_view portText, std::string_view scheme) {
  if (portText.empty()) {
    if (scheme == "https") return 443;
    if (scheme == "http") return 80;
    return 0;
  }
  // strtoul wants a terminated text: a short one is copied on the stack.
  char small[64];
  std::string large;
  const char* text = small;
  if (portText.size() < sizeof small) {
    std::memcpy(small, portText.data(), portText.size());
    small[portText.size()] = '\0';
  } else {
    large.assign(portText);
    text = large.c_str();
  }
  char* end = nullptr;
  const unsigned long value = std::strtoul(text, &end, 10);
  if (*end != '\0' && *end != '\n') return std::nullopt;
  return static_cast<uint16_t>(value);
}

}  // namespace

std::optional<uint16_t> RequestUri::portOf(const Orb::String& portText, const Orb::String& scheme) {
  return portOfText(portText.view(), scheme.view());
}

std::optional<RequestUri> RequestUri::parsed(const Orb::String& text) {
  UriUriA uri;
  UriParserStateA state;
  state.uri = &uri;
  // A failed parse has released what it allocated.
  if (uriParseUriA(&state, text.charPtr()) != URI_SUCCESS) return std::nullopt;
  RequestUri parts;
  const std::string_view scheme = rangeView(uri.scheme);
  parts.scheme = schemeString(scheme);
  parts.host = textRangeToStr(uri.hostText);
  parts.hostIsAddress = uri.hostData.ip4 != nullptr || uri.hostData.ip6 != nullptr;
  const std::optional<uint16_t> port = portOfText(rangeView(uri.portText), scheme);
  uriFreeUriMembersA(&uri);
  if (!port) return std::nullopt;
  parts.port = *port;
  return parts;
}

}  // namespace Retra
