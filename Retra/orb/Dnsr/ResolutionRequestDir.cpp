#include "Dnsr/ResolutionRequestDir.h"

namespace Dnsr {

namespace {

const Orb::TypeNode* registeredTypeNode() {
  static const Orb::TypeNode* node = [] {
    static const Orb::TypeNode descriptor(
        "Dnsr::ResolutionRequestDir", Orb::TypeNode::Kind::entity,
        ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, DNSR_RESOLUTION_REQUEST_DIR_ATTRIBUTES));
    Orb::typeNodeIs(&descriptor);
    return &descriptor;
  }();
  return node;
}

[[maybe_unused]] const Orb::TypeNode* const typeNodeAtLoad = registeredTypeNode();

}  // namespace

const Orb::TypeNode* ResolutionRequestDir::typeNode() const {
  return registeredTypeNode();
}

}  // namespace Dnsr
