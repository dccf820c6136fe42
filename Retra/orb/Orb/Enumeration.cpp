#include "Orb/Enumeration.h"

#include <ostream>
#include <string>

#include "Orb/Exception.h"

namespace Orb {

EnumDescriptor::EnumDescriptor(std::string_view typeName,
                               std::initializer_list<Enumerator> enumerators)
    : TypeNode(typeName, Kind::enumeration), table_(enumerators) {}

const EnumDescriptor::Enumerator* EnumDescriptor::find(uint32_t value) const noexcept {
  for (const Enumerator& e : table_) {
    if (e.value == value) return &e;
  }
  return nullptr;
}

uint32_t EnumDescriptor::instance(uint32_t value) const {
  if (!find(value)) {
    throwRangeException(
        (std::string(name()) + ": no enumerator numbered " + std::to_string(value)).c_str());
  }
  return value;
}

uint32_t EnumDescriptor::instance(std::string_view text) const {
  for (const Enumerator& e : table_) {
    if (e.name == text) return e.value;
  }
  throwRangeException(
      (std::string(name()) + ": no enumerator named '" + std::string(text) + "'").c_str());
}

String EnumDescriptor::stringValue(uint32_t value) const {
  const Enumerator* e = find(value);
  if (!e) (void)instance(value);  // raises
  return String(e->name);
}

uint32_t EnumDescriptor::sequenceToValue(const char*& it, const char* end) const {
  const Enumerator* best = nullptr;
  std::string_view rest(it, size_t(end - it));
  for (const Enumerator& e : table_) {
    if (rest.starts_with(e.name) && (!best || e.name.size() > best->name.size())) best = &e;
  }
  if (!best) {
    throwRangeException((std::string(name()) + ": no enumerator name at '" +
                         std::string(rest.substr(0, 32)) + "'")
                            .c_str());
  }
  it += best->name.size();
  return best->value;
}

std::ostream& EnumDescriptor::write(std::ostream& out, uint32_t value) const {
  const Enumerator* e = find(value);
  if (!e) return out << value;
  return out << e->name;
}

}  // namespace Orb
