#pragma once

#include <uriparser/Uri.h>

#include <cstdint>
#include <optional>

#include "Orb/String.h"

namespace Retra {

// What the engine takes from a request URI, parsed with uriparser: the scheme and host texts,
// the effective port, and whether the host is an IPv4 or IPv6 literal (which needs no name
// resolution; an IPv6 host is given without its brackets).
//
//   auto uri = Retra::RequestUri::parsed("https://a.test:8443/x");
//   uri->host;           // "a.test"
//   uri->port;           // 8443
//   Retra::RequestUri::parsed("http://a.test:80a/");   // nullopt
struct RequestUri {
  Orb::String scheme;
  Orb::String host;
  uint16_t port = 0;
  bool hostIsAddress = false;

  // The parts of `uri`, or nullopt when uriparser rejects it or its port text is bad.
  [[nodiscard]] static std::optional<RequestUri> parsed(const Orb::String& uri);

  // The effective port for `portText` under `scheme`: the number in base 10, kept to its low
  // 16 bits. The number must end at the end of the text or at a newline (whatever follows the
  // newline is ignored); any other character after it gives nullopt. Without port text: 443
  // for "https", 80 for "http", 0 for any other scheme.
  [[nodiscard]] static std::optional<uint16_t> portOf(const Orb::String& portText,
                                                      const Orb::String& scheme);
};

// The characters of a uriparser text range; empty when the range has no first character.
[[nodiscard]] Orb::String textRangeToStr(const UriTextRangeStructA& range);

}  // namespace Retra
