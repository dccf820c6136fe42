#include "Ipkit/Ip6Addr.h"

#include <arpa/inet.h>

#include <cstring>
#include <ostream>
#include <string>

#include "Orb/Exception.h"

namespace Ipkit {

namespace {

// The longest text an address can take, "0000:0000:0000:0000:0000:0000:255.255.255.255";
// longer text is rejected unread.
constexpr size_t maxTextLength = INET6_ADDRSTRLEN - 1;

const Orb::TypeNode* registeredTypeNode() {
  static const Orb::TypeNode* node = [] {
    static const Orb::TypeNode descriptor("Ipkit::Ip6Addr", Orb::TypeNode::Kind::value);
    Orb::typeNodeIs(&descriptor);
    return &descriptor;
  }();
  return node;
}

// Registers the type at load time; `typeNode()` covers callers that run before this.
[[maybe_unused]] const Orb::TypeNode* const typeNodeAtLoad = registeredTypeNode();

}  // namespace

Ip6Addr::Ip6Addr(const in6_addr& address) noexcept {
  std::memcpy(bytes_.data(), &address, bytes_.size());
}

Ip6Addr::Ip6Addr(std::string_view text) {
  if (!parse(text, this)) {
    Orb::throwRangeException(("not an Ipkit::Ip6Addr: \"" + std::string(text) + "\"").c_str());
  }
}

Ip6Addr Ip6Addr::fromBytes(const void* networkBytes) noexcept {
  Bytes bytes;
  std::memcpy(bytes.data(), networkBytes, bytes.size());
  return Ip6Addr(bytes);
}

bool Ip6Addr::parse(std::string_view text, Ip6Addr* out) noexcept {
  // inet_pton reads a NUL-terminated string, so text with a NUL of its own is not an address.
  if (text.size() > maxTextLength || text.find('\0') != std::string_view::npos) return false;
  char terminated[maxTextLength + 1];
  std::memcpy(terminated, text.data(), text.size());
  terminated[text.size()] = '\0';
  in6_addr address;
  if (inet_pton(AF_INET6, terminated, &address) != 1) return false;
  if (out) *out = Ip6Addr(address);
  return true;
}

const Orb::TypeNode* Ip6Addr::typeNode() {
  return registeredTypeNode();
}

in6_addr Ip6Addr::in6Addr() const noexcept {
  in6_addr address;
  std::memcpy(&address, bytes_.data(), bytes_.size());
  return address;
}

Orb::String Ip6Addr::str() const {
  char text[INET6_ADDRSTRLEN];
  const in6_addr address = in6Addr();
  // Cannot fail: the family is supported and the buffer fits every address.
  if (!inet_ntop(AF_INET6, &address, text, sizeof(text))) {
    Orb::throwInternalException("inet_ntop failed on an IPv6 address");
  }
  return Orb::String(text);
}

std::ostream& operator<<(std::ostream& out, const Ip6Addr& address) {
  return out << address.str();
}

void writeAttr(Orb::AttrLogOut& out, const Ip6Addr& address) {
  out.writeString(std::string_view(reinterpret_cast<const char*>(address.bytes().data()),
                                   address.bytes().size()));
}

void readAttr(Orb::AttrLogIn& in, Ip6Addr* address) {
  const Orb::String bytes = in.readString();
  if (bytes.size() != Ip6Addr::Bytes().size()) {
    Orb::throwParseException("an IPv6 address takes 16 bytes, not " + std::to_string(bytes.size()));
  }
  *address = Ip6Addr::fromBytes(bytes.charPtr());
}

}  // namespace Ipkit
