#include "Orb/Attribute.h"

namespace Orb {

std::vector<AttributeInfo> attributeTable(AttributeId first,
                                          std::initializer_list<std::string_view> names) {
  std::vector<AttributeInfo> table;
  table.reserve(names.size());
  AttributeId id = first;
  for (std::string_view name : names) table.push_back({id++, name});
  return table;
}

}  // namespace Orb
