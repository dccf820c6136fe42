#pragma once

#include "Orb/Attribute.h"
#include "Orb/Entity.h"
#include "Orb/HashMap.h"
#include "Orb/Name.h"
#include "Orb/Notifiee.h"
#include "Orb/TypeNode.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestKey.h"

// The attributes of `RequestDir`, in declaration order (numbered from 258).
#define RETRA_REQUEST_DIR_ATTRIBUTES(X) \
  X(DIRECTORY, request, RequestKey, Request, onRequest, onRequestImmediate)

namespace Retra {

// The client's input: `Request` values keyed by their `RequestKey` (entity type
// "Retra::RequestDir"; the root creates it as "retraRequest"). The engine watches it and fetches
// whatever is added or changed, and withdraws whatever is removed.
//
// Notification: every real change of a member (added, replaced by an unequal value, removed)
// calls `onRequest(key)` and then `onRequestImmediate()`, synchronously. Storing a value equal to
// the one held, or removing an absent key, notifies nobody.
//
//   auto dir = Orb::allocate<Retra::RequestDir>("retraRequest");
//   Retra::Request request(Retra::RequestKey(Retra::GET, "http://127.0.0.1/a"));
//   dir->requestIs(request);      // onRequest(key)
//   dir->requestIs(request);      // equal: silent
//   dir->requestDel(request.requestKey());
class RequestDir : public Orb::Entity {
 public:
  using RequestMap = Orb::HashMap<RequestKey, Request>;

  class NotifieeConst : public Orb::BaseNotifiee<RequestDir> {
   public:
    RETRA_REQUEST_DIR_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)

   protected:
    // Does nothing; a reactor overrides it to replay the requests already present.
    void onNotifierConnected() override {}
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, RETRA_REQUEST_DIR_ATTRIBUTES);

  explicit RequestDir(const Orb::Name& name) : Orb::Entity(name) {}

  // Every request, for iteration in the map's order.
  [[nodiscard]] const RequestMap& request() const noexcept { return request_; }
  // A copy of the request stored under `key`; when there is none, `Request(RequestKey())`, a
  // request on the default key rather than on `key`.
  [[nodiscard]] Request request(const RequestKey& key) const;

  // Stores a copy of `request` under its key, notifying unless an equal value was stored.
  void requestIs(const Request& request);
  // Removes the request under `key` and returns it (a default request when there was none).
  Request requestDel(const RequestKey& key);
  // Removes the request under `it`, as `requestDel(it->first)`.
  Request requestDel(RequestMap::const_iterator it);
  // Removes every request, each notified once.
  void requestDelAll();

  [[nodiscard]] static const Orb::TypeNode* staticTypeNode();
  [[nodiscard]] const Orb::TypeNode* typeNode() const override { return staticTypeNode(); }

 protected:
  ~RequestDir() override = default;

 private:
  void notifyRequest(const RequestKey& key) const;

  RequestMap request_;
};

}  // namespace Retra
