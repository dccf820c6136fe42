#include "Ipkit/IpAddr.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstring>
#include <ostream>
#include <string>

#include "Orb/Exception.h"

namespace Ipkit {

namespace {

// Longer than any dotted quad ("255.255.255.255" is 15), so longer text is rejected unread.
constexpr size_t maxTextLength = 15;

const Orb::TypeNode* registeredTypeNode() {
  static const Orb::TypeNode* node = [] {
    static const Orb::TypeNode descriptor("Ipkit::IpAddr", Orb::TypeNode::Kind::value);
    Orb::typeNodeIs(&descriptor);
    return &descriptor;
  }();
  return node;
}

// Registers the type at load time; `typeNode()` covers callers that run before this.
[[maybe_unused]] const Orb::TypeNode* const typeNodeAtLoad = registeredTypeNode();

}  // namespace

IpAddr::IpAddr(const in_addr& address) noexcept : value_(ntohl(address.s_addr)) {}

IpAddr::IpAddr(std::string_view text) {
  if (!parse(text, this)) {
    Orb::throwRangeException(("not an Ipkit::IpAddr: \"" + std::string(text) + "\"").c_str());
  }
}

IpAddr IpAddr::fromBytes(const void* networkBytes) noexcept {
  std::array<uint8_t, 4> bytes;
  std::memcpy(bytes.data(), networkBytes, bytes.size());
  return IpAddr(bytes);
}

bool IpAddr::parse(std::string_view text, IpAddr* out) noexcept {
  // inet_pton reads a NUL-terminated string, so text with a NUL of its own is not an address.
  if (text.size() > maxTextLength || text.find('\0') != std::string_view::npos) return false;
  char terminated[maxTextLength + 1];
  std::memcpy(terminated, text.data(), text.size());
  terminated[text.size()] = '\0';
  in_addr address;
  if (inet_pton(AF_INET, terminated, &address) != 1) return false;
  if (out) *out = IpAddr(address);
  return true;
}

const Orb::TypeNode* IpAddr::typeNode() {
  return registeredTypeNode();
}

in_addr IpAddr::inAddr() const noexcept {
  in_addr address;
  address.s_addr = htonl(value_);
  return address;
}

Orb::String IpAddr::str() const {
  char text[maxTextLength];
  char* end = text;
  for (uint8_t part : bytes()) {
    if (end != text) *end++ = '.';
    end = std::to_chars(end, text + sizeof(text), part).ptr;
  }
  return Orb::String(text, size_t(end - text));
}

std::ostream& operator<<(std::ostream& out, const IpAddr& address) {
  return out << address.str();
}

}  // namespace Ipkit
