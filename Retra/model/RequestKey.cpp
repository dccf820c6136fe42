#include "Retra/model/RequestKey.h"

#include "Orb/Exception.h"
#include "Orb/ValueText.h"

namespace Retra {

RequestKey::RequestKey(Orb::String::const_iterator& it, const Orb::String::const_iterator& end) {
  Orb::matchLiteral(it, end, "Value('Retra::RequestKey', ** {");
  Orb::matchLiteral(it, end, "'method': ");
  try {
    Orb::Expect expect;  // an unknown name is reported below as a parse error, not a fault
    expect.add(Orb::ExceptionId::range);
    sequenceToValue(it, end, &method_);
  } catch (const Orb::RangeException& e) {
    Orb::rethrowFromDeserializeAttr(e, "method");
  }
  Orb::matchLiteral(it, end, ", 'uri': ");
  uri_ = Orb::sequenceToString(it, end, "uri");
  Orb::matchLiteral(it, end, "})");
}

RequestKey::RequestKey(Orb::AttrLogIn& in) {
  Orb::readAttributes(in, *this);
}

const Orb::TypeNode* RequestKey::typeNode() {
  static const auto* node = new Orb::TypeNode(
      "Retra::RequestKey", Orb::TypeNode::Kind::value,
      ORB_ATTRIBUTE_TABLE(Orb::firstValueAttributeId, RETRA_REQUEST_KEY_ATTRIBUTES));
  return node;
}

Orb::String valueToStrep(const RequestKey& key) {
  return Orb::attributesText(key);
}

std::ostream& operator<<(std::ostream& out, const RequestKey& key) {
  return out << valueToStrep(key);
}

void writeAttr(Orb::AttrLogOut& out, const RequestKey& key) {
  Orb::writeAttributes(out, key);
}

}  // namespace Retra
