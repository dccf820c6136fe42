#include "Orb/TypeNode.h"

#include <string>

#include "Orb/Exception.h"

namespace Orb {

namespace {
std::vector<const TypeNode*>& registry() {
  static auto* nodes = new std::vector<const TypeNode*>;  // lives as long as the types
  return *nodes;
}
}  // namespace

std::string_view TypeNode::attributeName(AttributeId id) const noexcept {
  for (const AttributeInfo& a : attributes_) {
    if (a.id == id) return a.name;
  }
  return {};
}

AttributeId TypeNode::attributeId(std::string_view name) const noexcept {
  for (const AttributeInfo& a : attributes_) {
    if (a.name == name) return a.id;
  }
  return 0;
}

void typeNodeIs(const TypeNode* node) {
  if (!node) throwRangeException("null ValidPtr");
  const TypeNode* existing = typeNode(node->name());
  if (existing == node) return;
  if (existing) {
    throwInternalException(("type registered twice: " + std::string(node->name())).c_str());
  }
  registry().push_back(node);
}

const TypeNode* typeNode(std::string_view name) {
  for (const TypeNode* n : registry()) {
    if (n->name() == name) return n;
  }
  return nullptr;
}

std::vector<std::string_view> typeNames() {
  std::vector<std::string_view> names;
  for (const TypeNode* n : registry()) names.push_back(n->name());
  return names;
}

}  // namespace Orb
