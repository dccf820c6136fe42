#include "Retra/model/RequestCounter.h"

namespace Retra {

const Orb::TypeNode* RequestCounter::staticTypeNode() {
  static const auto* node = new Orb::TypeNode(
      "Retra::RequestCounter", Orb::TypeNode::Kind::entity,
      ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, RETRA_REQUEST_COUNTER_ATTRIBUTES));
  return node;
}

}  // namespace Retra
