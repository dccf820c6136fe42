#include "Retra/model/Request.h"

#include "Orb/Exception.h"

namespace Retra {

Request::Request(Orb::String::const_iterator&, const Orb::String::const_iterator&) {
  Orb::throwInternalException("!\"No String constructor for Request - has collection\"");
}

Request::Request(Orb::AttrLogIn& in) {
  Orb::readAttributes(in, *this);
}

const Orb::TypeNode* Request::typeNode() {
  static const auto* node =
      new Orb::TypeNode("Retra::Request", Orb::TypeNode::Kind::value,
                        ORB_ATTRIBUTE_TABLE(Orb::firstValueAttributeId, RETRA_REQUEST_ATTRIBUTES));
  return node;
}

Orb::String valueToStrep(const Request& request) {
  return Orb::attributesText(request);
}

std::ostream& operator<<(std::ostream& out, const Request& request) {
  return out << valueToStrep(request);
}

void writeAttr(Orb::AttrLogOut& out, const Request& request) {
  Orb::writeAttributes(out, request);
}

}  // namespace Retra
