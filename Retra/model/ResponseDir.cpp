#include "Retra/model/ResponseDir.h"

#include <vector>

namespace Retra {

Orb::Ptr<Response> ResponseDir::response(const RequestKey& key) const {
  auto it = response_.find(key);
  return it == response_.end() ? Orb::Ptr<Response>() : it->second;
}

Orb::Ptr<Response> ResponseDir::responseIs(const RequestKey& key) {
  auto it = response_.find(key);
  if (it != response_.end()) return it->second;
  Orb::Ptr<Response> response = Orb::allocate<Response>(key);
  response->parentIs(this);
  response->parentAttrIdIs(Attr::response);
  response_.emplace(key, response);
  notifyResponse(key);
  return response;
}

Orb::Ptr<Response> ResponseDir::responseDel(const RequestKey& key) {
  auto it = response_.find(key);
  if (it == response_.end()) return nullptr;
  const RequestKey removedKey = key;  // `key` may live in the member being erased
  Orb::Ptr<Response> removed = std::move(it->second);
  response_.erase(it);
  removed->parentIs(nullptr);
  notifyResponse(removedKey);
  return removed;
}

Orb::Ptr<Response> ResponseDir::responseDel(ResponseMap::const_iterator it) {
  const RequestKey key = it->first;
  return responseDel(key);
}

void ResponseDir::responseDelAll() {
  Orb::KeepAlive keep(*this);
  // Observers may change the directory from their callbacks: remove the keys present at the
  // start, each through responseDel so that each is notified once.
  std::vector<RequestKey> keys;
  keys.reserve(response_.size());
  for (const auto& member : response_) keys.push_back(member.first);
  for (const RequestKey& key : keys) (void)responseDel(key);
}

void ResponseDir::notifyResponse(const RequestKey& key) const {
  Orb::notifyMember(*this, &NotifieeConst::onResponse, &NotifieeConst::onResponseImmediate, key);
}

const Orb::TypeNode* ResponseDir::staticTypeNode() {
  static const auto* node = new Orb::TypeNode(
      "Retra::ResponseDir", Orb::TypeNode::Kind::entity,
      ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, RETRA_RESPONSE_DIR_ATTRIBUTES));
  return node;
}

}  // namespace Retra
