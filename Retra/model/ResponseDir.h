#pragma once

#include "Orb/Attribute.h"
#include "Orb/Entity.h"
#include "Orb/HashMap.h"
#include "Orb/Name.h"
#include "Orb/Notifiee.h"
#include "Orb/Ptr.h"
#include "Orb/TypeNode.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"

// The attributes of `ResponseDir`, in declaration order (numbered from 258).
#define RETRA_RESPONSE_DIR_ATTRIBUTES(X) \
  X(DIRECTORY, response, RequestKey, Orb::Ptr<Response>, onResponse, onResponseImmediate)

namespace Retra {

// The library's output: one `Response` per `RequestKey` (entity type "Retra::ResponseDir"; the
// root creates it as "retraResponse"). The directory holds a reference to each response and is
// its parent, through the attribute `response`.
//
// Notification: adding a response (`responseIs` on a new key) and removing one call
// `onResponse(key)` and then `onResponseImmediate()`, synchronously. Finding an existing
// response notifies nobody.
//
//   auto dir = Orb::allocate<Retra::ResponseDir>("retraResponse");
//   auto response = dir->responseIs(key);   // created: onResponse(key)
//   dir->responseIs(key);                   // the same response, silent
//   dir->response(key);                     // lookup only; null when absent
//   dir->responseDel(key);                  // onResponse(key); the response has no parent now
class ResponseDir : public Orb::Entity {
 public:
  using ResponseMap = Orb::HashMap<RequestKey, Orb::Ptr<Response>>;

  class NotifieeConst : public Orb::BaseNotifiee<ResponseDir> {
   public:
    RETRA_RESPONSE_DIR_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)

   protected:
    // Does nothing; a reactor overrides it to replay the responses already present.
    void onNotifierConnected() override {}
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, RETRA_RESPONSE_DIR_ATTRIBUTES);

  explicit ResponseDir(const Orb::Name& name) : Orb::Entity(name) {}

  // Every response, for iteration in the map's order.
  [[nodiscard]] const ResponseMap& response() const noexcept { return response_; }
  // The response under `key`, or null; creates nothing.
  [[nodiscard]] Orb::Ptr<Response> response(const RequestKey& key) const;

  // Find-or-create: the existing response under `key`, unchanged; otherwise a new
  // `Response(key)` with this directory as parent, inserted and notified. An allocation that
  // yields nothing raises the range exception "null ValidPtr".
  Orb::Ptr<Response> responseIs(const RequestKey& key);
  // Removes the response under `key`, clears its parent, notifies, and returns it; null (and
  // silent) when there is none.
  Orb::Ptr<Response> responseDel(const RequestKey& key);
  // Removes the response under `it`, as `responseDel(it->first)`.
  Orb::Ptr<Response> responseDel(ResponseMap::const_iterator it);
  // Removes every response, each notified once.
  void responseDelAll();

  [[nodiscard]] static const Orb::TypeNode* staticTypeNode();
  [[nodiscard]] const Orb::TypeNode* typeNode() const override { return staticTypeNode(); }

 protected:
  ~ResponseDir() override = default;

 private:
  void notifyResponse(const RequestKey& key) const;

  ResponseMap response_;
};

}  // namespace Retra
