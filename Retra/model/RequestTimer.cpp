#include "Retra/model/RequestTimer.h"

namespace Retra {

const Orb::TypeNode* RequestTimer::staticTypeNode() {
  static const auto* node = new Orb::TypeNode(
      "Retra::RequestTimer", Orb::TypeNode::Kind::entity,
      ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, RETRA_REQUEST_TIMER_ATTRIBUTES));
  return node;
}

}  // namespace Retra
