#pragma once

#include <cstdint>
#include <functional>
#include <ostream>

#include "Orb/AttrLog.h"
#include "Orb/Attribute.h"
#include "Orb/String.h"
#include "Orb/TypeNode.h"
#include "Retra/model/Enumerations.h"

// The attributes of `RequestKey`, in declaration order (numbered from 2).
#define RETRA_REQUEST_KEY_ATTRIBUTES(X) \
  X(READONLY, method, Method, OPTIONS)  \
  X(READONLY, uri, Orb::String, {})     \
  X(DERIVED, hash, uint32_t)

namespace Retra {

// The identity of a request: its HTTP method and its URI exactly as the client gave it (no
// normalisation). An immutable value, type name "Retra::RequestKey", copied by value (the URI
// shares its buffer). It keys both the `RequestDir` and the `ResponseDir`.
//
// The default key (OPTIONS, empty URI) is the null key: `!RequestKey()` is true, and so is
// `!RequestKey(OPTIONS, "")`, while a GET key on an empty URI is not null.
//
//   Retra::RequestKey key(Retra::GET, "http://127.0.0.1:8080/a");
//   Retra::valueToStrep(key);
//     // Value('Retra::RequestKey', ** {'method': GET, 'uri': 'http://127.0.0.1:8080/a'})
//   auto back = Orb::valueFromStrep<Retra::RequestKey>(Retra::valueToStrep(key).view());
//   back == key;   // true
//
// Keys order by method number first and by URI only for equal methods, so every GET key sorts
// before every HEAD key. `hash()` is the URI's string hash XORed with the method number.
class RequestKey {
 public:
  ORB_ATTRIBUTE_IDS(Orb::firstValueAttributeId, RETRA_REQUEST_KEY_ATTRIBUTES);

  RequestKey() = default;
  RequestKey(Method method, Orb::String uri) : method_(method), uri_(std::move(uri)) {}
  // Reads the text form at `it` and moves past it. A missing literal or a bad URI string is the
  // parse exception; a name that is no method is the parse exception naming "method".
  RequestKey(Orb::String::const_iterator& it, const Orb::String::const_iterator& end);
  // Reads what `writeAttr` wrote: the method number, then the URI.
  explicit RequestKey(Orb::AttrLogIn& in);

  RETRA_REQUEST_KEY_ATTRIBUTES(ORB_VALUE_ACCESSORS)
  [[nodiscard]] uint32_t hash() const noexcept { return uri_.hash() ^ method_; }

  // True for the default key: OPTIONS on an empty URI.
  bool operator!() const noexcept { return method_ == OPTIONS && uri_.empty(); }
  friend bool operator==(const RequestKey& a, const RequestKey& b) noexcept {
    return a.method_ == b.method_ && a.uri_ == b.uri_;
  }
  friend bool operator<(const RequestKey& a, const RequestKey& b) noexcept {
    if (a.method_ != b.method_) return a.method_ < b.method_;
    return a.uri_ < b.uri_;
  }

  // The descriptor registered under "Retra::RequestKey".
  [[nodiscard]] static const Orb::TypeNode* typeNode();

  // The generic reflection interface: each stored attribute with its member.
  ORB_VALUE_REFLECTION(RequestKey, RETRA_REQUEST_KEY_ATTRIBUTES)

 private:
  RETRA_REQUEST_KEY_ATTRIBUTES(ORB_VALUE_MEMBERS)
};

// "Value('Retra::RequestKey', ** {'method': <name>, 'uri': <quoted uri>})".
[[nodiscard]] Orb::String valueToStrep(const RequestKey& key);
// Writes the same characters as `valueToStrep`.
std::ostream& operator<<(std::ostream& out, const RequestKey& key);
// Attribute-log form: one compound of the method number and the URI.
void writeAttr(Orb::AttrLogOut& out, const RequestKey& key);

}  // namespace Retra

template <>
struct std::hash<Retra::RequestKey> {
  size_t operator()(const Retra::RequestKey& key) const noexcept { return key.hash(); }
};
