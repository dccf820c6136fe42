#include "Retra/model/Response.h"

namespace Retra {

namespace {
Orb::Name nameOf(const RequestKey& key) {
  return Orb::Name(stringValue(key.method()) + Orb::String(" ") + key.uri());
}
}  // namespace

Response::Response(const RequestKey& key) : Orb::Entity(nameOf(key)), requestKey_(key) {}

Response::~Response() {
  counter_ = nullptr;
  timer_ = nullptr;
  notifiees().deleteAll();
  // The address sets, header collections and the rest are released with the members.
}

void Response::doReset() {
  Orb::KeepAlive keep(*this);  // an observer may drop the last reference half-way
  statusCodeIs(0);
  lastErrorIs(errNone);
  effectiveUrlIs(Orb::String());
  lastErrorMessageIs(Orb::String());
  lastUpdateTimeIs(0.0);
  lastChangeTimeIs(0.0);
  headerDelAll();
  bodyIs(Orb::String());
  contentTypeIs(Orb::String());
  contentLengthUploadIs(-1);
  contentLengthDownloadIs(-1);
  resolvedIs(false);
  hostIs(Orb::String());
  ipAddressDelAll();
  ip6AddressDelAll();
  portIs(0);
}

const Orb::TypeNode* Response::staticTypeNode() {
  static const auto* node = new Orb::TypeNode(
      "Retra::Response", Orb::TypeNode::Kind::entity,
      ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, RETRA_RESPONSE_ATTRIBUTES));
  return node;
}

}  // namespace Retra
