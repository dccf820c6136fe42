// URI intake over arbitrary text. Besides not reading outside the text, what the engine takes
// from an accepted URI must be consistent with the text itself: the scheme is where a scheme
// stands, the host is a piece of the text, a host taken as an address literal is one the
// system's own address parser accepts, an explicit decimal port is that number kept to 16 bits
// and a missing one the scheme's default, and the text ends for the parser at its first NUL.

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Retra/engine/RequestUri.h"
#include "fuzz/FuzzCheck.h"

namespace {

bool sameParts(const std::optional<Retra::RequestUri>& a,
               const std::optional<Retra::RequestUri>& b) {
  if (!a || !b) return !a && !b;
  return a->scheme == b->scheme && a->host == b->host && a->port == b->port &&
         a->hostIsAddress == b->hostIsAddress;
}

bool isAddressLiteral(const std::string& host) {
  unsigned char address[16];
  return inet_pton(AF_INET, host.c_str(), address) == 1 ||
         inet_pton(AF_INET6, host.c_str(), address) == 1;
}

// The port text after the host of the authority ("//authority", after the scheme if there is
// one), if the authority has one.
std::optional<std::string_view> portText(std::string_view uri, const Retra::RequestUri& parts) {
  std::string_view rest = uri;
  if (!parts.scheme.empty()) rest.remove_prefix(parts.scheme.size() + 1);
  if (!rest.starts_with("//")) return std::nullopt;
  std::string_view authority = rest.substr(2);
  authority = authority.substr(0, authority.find_first_of("/?#"));
  const size_t at = authority.rfind('@');
  if (at != std::string_view::npos) authority.remove_prefix(at + 1);
  const size_t closing = authority.rfind(']');
  const size_t colon = authority.rfind(':');
  if (colon == std::string_view::npos || (closing != std::string_view::npos && colon < closing)) {
    return std::nullopt;
  }
  return authority.substr(colon + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::optional<Retra::RequestUri> parts = Retra::RequestUri::parsed(Orb::String(text));

  // The parser sees the text up to its first NUL only.
  const std::string_view visible(text.c_str());
  if (visible.size() != text.size()) {
    FUZZ_CHECK(sameParts(parts, Retra::RequestUri::parsed(Orb::String(visible))));
  }
  if (!parts) return 0;

  if (!parts->scheme.empty()) {
    FUZZ_CHECK(visible.starts_with(parts->scheme.str() + ":"));
  }
  FUZZ_CHECK(visible.find(parts->host.view()) != std::string_view::npos);
  if (parts->hostIsAddress) FUZZ_CHECK(isAddressLiteral(parts->host.str()));

  const std::optional<std::string_view> port = portText(visible, *parts);
  if (!port || port->empty()) {
    const uint16_t fallback = parts->scheme == "https" ? 443 : parts->scheme == "http" ? 80 : 0;
    FUZZ_CHECK(parts->port == fallback);
  } else if (port->size() <= 9 && port->find_first_not_of("0123456789") == std::string_view::npos) {
    FUZZ_CHECK(parts->port == uint16_t(std::stoul(std::string(*port))));
  }
  return 0;
}
