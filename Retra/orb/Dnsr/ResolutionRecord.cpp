#include "Dnsr/ResolutionRecord.h"

namespace Dnsr {

namespace {

const Orb::TypeNode* registeredTypeNode() {
  static const Orb::TypeNode* node = [] {
    static const Orb::TypeNode descriptor(
        "Dnsr::ResolutionRecord", Orb::TypeNode::Kind::entity,
        ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, DNSR_RESOLUTION_RECORD_ATTRIBUTES));
    Orb::typeNodeIs(&descriptor);
    return &descriptor;
  }();
  return node;
}

[[maybe_unused]] const Orb::TypeNode* const typeNodeAtLoad = registeredTypeNode();

}  // namespace

const Orb::TypeNode* ResolutionRecord::typeNode() const {
  return registeredTypeNode();
}

}  // namespace Dnsr
