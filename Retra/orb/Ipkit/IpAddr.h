#pragma once

#include <netinet/in.h>

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string_view>

#include "Orb/AttrLog.h"
#include "Orb/String.h"
#include "Orb/TypeNode.h"

namespace Ipkit {

// An IPv4 address (type name "Ipkit::IpAddr"): a plain value, cheap to copy, usable as a key of
// `Orb::HashMap` and `std::unordered_map`. The default value is the unspecified address 0.0.0.0.
//
// Text is the dotted quad and nothing else: four decimal parts 0..255 without leading zeros, no
// spaces, no port, no short forms such as "127.1". Text that is not an address raises the range
// exception; `parse` tests text without raising.
//
//   Ipkit::IpAddr a("127.0.0.1");
//   a.isLoopback();                        // true
//   a.value();                             // 0x7f000001
//   a.str();                               // "127.0.0.1"
//   Ipkit::IpAddr b;
//   if (Ipkit::IpAddr::parse(host, &b)) connectTo(b);
//
// Addresses order numerically, which is the order of their network-order bytes.
class IpAddr {
 public:
  constexpr IpAddr() noexcept = default;
  // From the address as a number in host byte order: IpAddr(0x7f000001) is 127.0.0.1. A literal
  // 0 would also read as a null text pointer, so write IpAddr() or IpAddr(0u) for 0.0.0.0.
  constexpr explicit IpAddr(uint32_t hostOrderValue) noexcept : value_(hostOrderValue) {}
  // From the four bytes in network order, most significant first.
  constexpr explicit IpAddr(const std::array<uint8_t, 4>& networkBytes) noexcept
      : value_(uint32_t(networkBytes[0]) << 24 | uint32_t(networkBytes[1]) << 16 |
               uint32_t(networkBytes[2]) << 8 | uint32_t(networkBytes[3])) {}
  explicit IpAddr(const in_addr& address) noexcept;
  // From text; the range exception when the text is not a dotted quad. A null pointer is
  // read as empty text.
  explicit IpAddr(const Orb::String& text) : IpAddr(text.view()) {}
  explicit IpAddr(const char* text) : IpAddr(std::string_view(text ? text : "")) {}
  explicit IpAddr(std::string_view text);

  // From four network-order bytes at `networkBytes` (a `hostent` entry, a packet).
  [[nodiscard]] static IpAddr fromBytes(const void* networkBytes) noexcept;
  // 127.0.0.1.
  [[nodiscard]] static constexpr IpAddr loopback() noexcept { return IpAddr(0x7f000001u); }

  // Whether `text` is a dotted quad; when it is and `out` is not null, stores the address in
  // `*out`. Never raises.
  [[nodiscard]] static bool parse(std::string_view text, IpAddr* out) noexcept;

  // The descriptor registered under "Ipkit::IpAddr". Registration happens when the program
  // loads this type's object file (any use of the text forms links it), and at the latest on the
  // first call here.
  [[nodiscard]] static const Orb::TypeNode* typeNode();

  [[nodiscard]] constexpr uint32_t value() const noexcept { return value_; }
  [[nodiscard]] constexpr std::array<uint8_t, 4> bytes() const noexcept {
    return {uint8_t(value_ >> 24), uint8_t(value_ >> 16), uint8_t(value_ >> 8), uint8_t(value_)};
  }
  [[nodiscard]] in_addr inAddr() const noexcept;

  // In 127.0.0.0/8.
  [[nodiscard]] constexpr bool isLoopback() const noexcept { return (value_ >> 24) == 127; }
  // 0.0.0.0.
  [[nodiscard]] constexpr bool isUnspecified() const noexcept { return value_ == 0; }

  // The dotted quad, "192.0.2.1".
  [[nodiscard]] Orb::String str() const;
  [[nodiscard]] uint32_t hash() const noexcept { return Orb::hashU64(value_); }

  friend constexpr bool operator==(const IpAddr&, const IpAddr&) noexcept = default;
  friend constexpr std::strong_ordering operator<=>(const IpAddr&,
                                                    const IpAddr&) noexcept = default;
  friend constexpr bool operator<(const IpAddr& a, const IpAddr& b) noexcept {
    return a.value_ < b.value_;
  }

 private:
  uint32_t value_ = 0;
};

// Writes the dotted quad.
std::ostream& operator<<(std::ostream& out, const IpAddr& address);

// Attribute-log form: the address as an unsigned number in host byte order.
inline void writeAttr(Orb::AttrLogOut& out, const IpAddr& address) {
  out.writeU32(address.value());
}
inline void readAttr(Orb::AttrLogIn& in, IpAddr* address) {
  *address = IpAddr(in.readU32());
}

}  // namespace Ipkit

template <>
struct std::hash<Ipkit::IpAddr> {
  size_t operator()(const Ipkit::IpAddr& a) const noexcept { return a.hash(); }
};
