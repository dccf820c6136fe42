#include "Retra/model/RequestDir.h"

#include <vector>

namespace Retra {

Request RequestDir::request(const RequestKey& key) const {
  auto it = request_.find(key);
  return it == request_.end() ? Request(RequestKey()) : it->second;
}

void RequestDir::requestIs(const Request& request) {
  const RequestKey key = request.requestKey();  // a copy: observers may remove the member
  auto [it, added] = request_.try_emplace(key, request);
  if (!added) {
    if (it->second == request) return;
    it->second = request;
  }
  notifyRequest(key);
}

Request RequestDir::requestDel(const RequestKey& key) {
  auto it = request_.find(key);
  if (it == request_.end()) return Request(RequestKey());
  const RequestKey removedKey = key;  // `key` may live in the member being erased
  Request removed = std::move(it->second);
  request_.erase(it);
  notifyRequest(removedKey);
  return removed;
}

Request RequestDir::requestDel(RequestMap::const_iterator it) {
  const RequestKey key = it->first;
  return requestDel(key);
}

void RequestDir::requestDelAll() {
  Orb::KeepAlive keep(*this);
  // Observers may change the directory from their callbacks: remove the keys present at the
  // start, each through requestDel so that each is notified once.
  std::vector<RequestKey> keys;
  keys.reserve(request_.size());
  for (const auto& member : request_) keys.push_back(member.first);
  for (const RequestKey& key : keys) (void)requestDel(key);
}

void RequestDir::notifyRequest(const RequestKey& key) const {
  Orb::notifyMember(*this, &NotifieeConst::onRequest, &NotifieeConst::onRequestImmediate, key);
}

const Orb::TypeNode* RequestDir::staticTypeNode() {
  static const auto* node = new Orb::TypeNode(
      "Retra::RequestDir", Orb::TypeNode::Kind::entity,
      ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, RETRA_REQUEST_DIR_ATTRIBUTES));
  return node;
}

}  // namespace Retra
