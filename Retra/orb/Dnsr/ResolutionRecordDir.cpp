#include "Dnsr/ResolutionRecordDir.h"

namespace Dnsr {

namespace {

const Orb::TypeNode* registeredTypeNode() {
  static const Orb::TypeNode* node = [] {
    static const Orb::TypeNode descriptor(
        "Dnsr::ResolutionRecordDir", Orb::TypeNode::Kind::entity,
        ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, DNSR_RESOLUTION_RECORD_DIR_ATTRIBUTES));
    Orb::typeNodeIs(&descriptor);
    return &descriptor;
  }();
  return node;
}

[[maybe_unused]] const Orb::TypeNode* const typeNodeAtLoad = registeredTypeNode();

}  // namespace

ResolutionRecordDir::~ResolutionRecordDir() {
  for (auto& [name, record] : record_) record->parentIs(nullptr);
}

const Orb::TypeNode* ResolutionRecordDir::typeNode() const {
  return registeredTypeNode();
}

Orb::Ptr<const ResolutionRecord> ResolutionRecordDir::record(const Orb::Name& name) const {
  auto it = record_.find(name);
  return it == record_.end() ? nullptr : Orb::Ptr<const ResolutionRecord>(it->second);
}

Orb::Ptr<ResolutionRecord> ResolutionRecordDir::record(const Orb::Name& name) {
  auto it = record_.find(name);
  return it == record_.end() ? nullptr : it->second;
}

Orb::Ptr<ResolutionRecord> ResolutionRecordDir::recordIs(const Orb::Name& name) {
  if (auto existing = record(name)) return existing;
  auto record = Orb::allocate<ResolutionRecord>(name);
  record->parentIs(this);
  record->parentAttrIdIs(Attr::record);
  record_.emplace(name, record);
  recordNotified(name);
  return record;
}

Orb::Ptr<ResolutionRecord> ResolutionRecordDir::recordDel(const Orb::Name& name) {
  const Orb::Name key = name;  // `name` may be the stored key itself
  auto it = record_.find(key);
  if (it == record_.end()) return nullptr;
  Orb::Ptr<ResolutionRecord> record = std::move(it->second);
  record_.erase(it);
  record->parentIs(nullptr);
  recordNotified(key);
  return record;
}

void ResolutionRecordDir::recordNotified(const Orb::Name& name) {
  Orb::notifyMember(*this, &NotifieeConst::onRecord, &NotifieeConst::onRecordImmediate, name);
}

}  // namespace Dnsr
