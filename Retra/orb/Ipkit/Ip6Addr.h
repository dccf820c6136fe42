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

// An IPv6 address (type name "Ipkit::Ip6Addr"): a plain value of 16 bytes in network order,
// cheap to copy, usable as a key of `Orb::HashMap` and `std::unordered_map`. The default value
// is the unspecified address ::.
//
// Text is any RFC 4291 form ("2001:DB8:0:0::1", "::ffff:192.0.2.1"), with no spaces, brackets,
// ports or zone ids ("%eth0"). Text that is not an address raises the range exception; `parse`
// tests text without raising. `str()` gives the RFC 5952 canonical form, the one inet_ntop
// writes: lower case, leading zeros dropped, the longest run of two or more zero groups (the
// first of equals) as "::", and IPv4-mapped addresses as ::ffff:192.0.2.1.
//
//   Ipkit::Ip6Addr a("2001:DB8:0:0:0:0:0:1");
//   a.str();                               // "2001:db8::1"
//   Ipkit::Ip6Addr("::1").isLoopback();    // true
//   Ipkit::Ip6Addr b;
//   if (Ipkit::Ip6Addr::parse(host, &b)) connectTo(b);
//
// Addresses order by their bytes, most significant first.
class Ip6Addr {
 public:
  using Bytes = std::array<uint8_t, 16>;

  constexpr Ip6Addr() noexcept = default;
  // From the sixteen bytes in network order.
  constexpr explicit Ip6Addr(const Bytes& networkBytes) noexcept : bytes_(networkBytes) {}
  explicit Ip6Addr(const in6_addr& address) noexcept;
  // From text; the range exception when the text is not an IPv6 address. A null pointer is
  // read as empty text.
  explicit Ip6Addr(const Orb::String& text) : Ip6Addr(text.view()) {}
  explicit Ip6Addr(const char* text) : Ip6Addr(std::string_view(text ? text : "")) {}
  explicit Ip6Addr(std::string_view text);

  // From sixteen network-order bytes at `networkBytes` (a `hostent` entry, a packet).
  [[nodiscard]] static Ip6Addr fromBytes(const void* networkBytes) noexcept;
  // ::1.
  [[nodiscard]] static constexpr Ip6Addr loopback() noexcept {
    Bytes b{};
    b[15] = 1;
    return Ip6Addr(b);
  }

  // Whether `text` is an IPv6 address; when it is and `out` is not null, stores the address in
  // `*out`. Never raises.
  [[nodiscard]] static bool parse(std::string_view text, Ip6Addr* out) noexcept;

  // The descriptor registered under "Ipkit::Ip6Addr". Registration happens when the program
  // loads this type's object file (any use of the text forms links it), and at the latest on the
  // first call here.
  [[nodiscard]] static const Orb::TypeNode* typeNode();

  [[nodiscard]] constexpr const Bytes& bytes() const noexcept { return bytes_; }
  [[nodiscard]] in6_addr in6Addr() const noexcept;

  // ::1 (and only that: an IPv4-mapped loopback is not).
  [[nodiscard]] constexpr bool isLoopback() const noexcept { return *this == loopback(); }
  // ::.
  [[nodiscard]] constexpr bool isUnspecified() const noexcept { return *this == Ip6Addr(); }
  // In ::ffff:0:0/96, an IPv4 address in IPv6 form.
  [[nodiscard]] constexpr bool isV4Mapped() const noexcept {
    for (size_t i = 0; i < 10; ++i) {
      if (bytes_[i] != 0) return false;
    }
    return bytes_[10] == 0xff && bytes_[11] == 0xff;
  }

  // The canonical text, "2001:db8::1".
  [[nodiscard]] Orb::String str() const;
  [[nodiscard]] uint32_t hash() const noexcept {
    return Orb::hashBytes(bytes_.data(), bytes_.size());
  }

  friend constexpr bool operator==(const Ip6Addr&, const Ip6Addr&) noexcept = default;
  friend constexpr std::strong_ordering operator<=>(const Ip6Addr&,
                                                    const Ip6Addr&) noexcept = default;
  friend constexpr bool operator<(const Ip6Addr& a, const Ip6Addr& b) noexcept {
    return a.bytes_ < b.bytes_;
  }

 private:
  Bytes bytes_{};
};

// Writes the canonical text.
std::ostream& operator<<(std::ostream& out, const Ip6Addr& address);

// Attribute-log form: the sixteen network-order bytes as a string; any other length is a parse
// error.
void writeAttr(Orb::AttrLogOut& out, const Ip6Addr& address);
void readAttr(Orb::AttrLogIn& in, Ip6Addr* address);

}  // namespace Ipkit

template <>
struct std::hash<Ipkit::Ip6Addr> {
  size_t operator()(const Ipkit::Ip6Addr& a) const noexcept { return a.hash(); }
};
