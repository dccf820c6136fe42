#pragma once

#include <functional>
#include <iosfwd>

#include "Orb/String.h"

namespace Orb {

// The name of an entity (type name "Orb::Name"): a string with its own type, so that names and
// arbitrary text are not mixed up. Names compare and hash by content.
class Name {
 public:
  Name() = default;
  Name(const char* text) : text_(text) {}
  Name(const String& text) : text_(text) {}
  Name(std::string_view text) : text_(text) {}

  [[nodiscard]] const String& string() const noexcept { return text_; }
  [[nodiscard]] const char* charPtr() const noexcept { return text_.charPtr(); }
  [[nodiscard]] bool empty() const noexcept { return text_.empty(); }
  [[nodiscard]] uint32_t hash() const noexcept { return text_.hash(); }
  operator const String&() const noexcept { return text_; }

  friend bool operator==(const Name& a, const Name& b) noexcept { return a.text_ == b.text_; }
  friend bool operator==(const Name& a, const char* b) noexcept { return a.text_ == b; }
  friend bool operator<(const Name& a, const Name& b) noexcept { return a.text_ < b.text_; }

 private:
  String text_;
};

inline std::ostream& operator<<(std::ostream& out, const Name& n) { return out << n.string(); }

}  // namespace Orb

template <>
struct std::hash<Orb::Name> {
  size_t operator()(const Orb::Name& n) const noexcept { return n.hash(); }
};
