#pragma once

#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <string_view>
#include <utility>
#include <vector>

#include "Orb/String.h"
#include "Orb/TypeNode.h"

namespace Orb {

// The enumeration service: one descriptor per unsigned 32-bit enumeration, holding its table of
// enumerator names and numbers. Every call is given the descriptor.
//
//   const EnumDescriptor methodType("Retra::Method", {{"OPTIONS", 0}, {"GET", 1}});
//   uint32_t v = methodType.instance("GET");          // 1
//   methodType.stringValue(0);                        // "OPTIONS"
class EnumDescriptor : public TypeNode {
 public:
  struct Enumerator {
    std::string_view name;
    uint32_t value;
  };

  EnumDescriptor(std::string_view typeName, std::initializer_list<Enumerator> enumerators);

  [[nodiscard]] const std::vector<Enumerator>& enumerators() const noexcept { return table_; }

  // The enumerator numbered `value`; a number outside the table raises the range exception.
  [[nodiscard]] uint32_t instance(uint32_t value) const;
  // The enumerator named `name`; an unknown name raises the range exception.
  [[nodiscard]] uint32_t instance(std::string_view name) const;
  [[nodiscard]] uint32_t instance(const char* name) const { return instance(std::string_view(name)); }
  [[nodiscard]] uint32_t instance(const String& name) const { return instance(name.view()); }
  // The enumerator's name; the range exception for a number outside the table.
  [[nodiscard]] String stringValue(uint32_t value) const;
  // The value's text form: its enumerator name.
  [[nodiscard]] String valueToStrep(uint32_t value) const { return stringValue(value); }
  // Reads the longest enumerator name at `it` and moves past it; the range exception when no
  // enumerator name starts there.
  [[nodiscard]] uint32_t sequenceToValue(const char*& it, const char* end) const;
  std::ostream& write(std::ostream& out, uint32_t value) const;

 private:
  [[nodiscard]] const Enumerator* find(uint32_t value) const noexcept;
  std::vector<Enumerator> table_;
};

}  // namespace Orb
