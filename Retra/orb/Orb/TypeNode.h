#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace Orb {

// Attribute identifiers. A type's own attributes are numbered in declaration order, from
// `firstEntityAttributeId` for entities and from `firstValueAttributeId` for value types;
// derived attributes and declared operations take numbers in the same sequence.
using AttributeId = uint32_t;
inline constexpr AttributeId firstEntityAttributeId = 0x102;  // 258
inline constexpr AttributeId firstValueAttributeId = 2;

// The attributes every entity inherits, with the framework's own numbers.
enum EntityAttributeId : AttributeId {
  entityNameAttributeId = 0x10,
  entityFullNameAttributeId,
  entityParentAttributeId,
  entityParentAttrNameAttributeId,
  entityEntityAttributeId,
};

struct AttributeInfo {
  AttributeId id;
  std::string_view name;
};

// The descriptor of a registered type: its full name ("Retra::Response") and its attributes.
class TypeNode {
 public:
  enum class Kind : uint8_t { entity, value, enumeration };

  TypeNode(std::string_view name, Kind kind, std::vector<AttributeInfo> attributes = {})
      : name_(name), kind_(kind), attributes_(std::move(attributes)) {}
  virtual ~TypeNode() = default;

  [[nodiscard]] std::string_view name() const noexcept { return name_; }
  [[nodiscard]] Kind kind() const noexcept { return kind_; }
  [[nodiscard]] const std::vector<AttributeInfo>& attributes() const noexcept {
    return attributes_;
  }
  // The attribute's name, or an empty view when the type has no attribute of that number.
  [[nodiscard]] std::string_view attributeName(AttributeId id) const noexcept;
  // The attribute's number, or 0 when the type has no attribute of that name.
  [[nodiscard]] AttributeId attributeId(std::string_view name) const noexcept;

 private:
  std::string_view name_;
  Kind kind_;
  std::vector<AttributeInfo> attributes_;
};

// Registers a type descriptor under its name (load-time registration). Registering a second
// descriptor under a name already taken raises the internal exception.
void typeNodeIs(const TypeNode* node);
// The descriptor registered under `name`, or null.
[[nodiscard]] const TypeNode* typeNode(std::string_view name);
// Every registered name, in registration order.
[[nodiscard]] std::vector<std::string_view> typeNames();

}  // namespace Orb
