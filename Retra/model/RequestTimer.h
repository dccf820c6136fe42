#pragma once

#include "Orb/Attribute.h"
#include "Orb/Entity.h"
#include "Orb/Name.h"
#include "Orb/Notifiee.h"
#include "Orb/TypeNode.h"

// The attributes of `RequestTimer`, in declaration order (numbered from 258). All are seconds.
#define RETRA_REQUEST_TIMER_ATTRIBUTES(X)                                                \
  X(COUNTER, hostLookup, double, hostLookupIs, hostLookupInc, onHostLookup, 0.0)         \
  X(COUNTER, connect, double, connectIs, connectInc, onConnect, 0.0)                     \
  X(COUNTER, sslHandshake, double, sslHandshakeIs, sslHandshakeInc, onSslHandshake, 0.0) \
  X(COUNTER, request, double, requestIs, requestInc, onRequest, 0.0)                     \
  X(COUNTER, response, double, responseIs, responseInc, onResponse, 0.0)                 \
  X(COUNTER, total, double, totalIs, totalInc, onTotal, 0.0)

namespace Retra {

// Durations of the transfer phases of one response, summed over every fetch of its request,
// refreshes included (entity type "Retra::RequestTimer"). It is the child "timer" of a
// `Response`, created by `Response::timerIs()`.
//
// The engine adds `connect`, `sslHandshake`, `request`, `response` and `total` after each
// transfer. It never writes `hostLookup`: host names are resolved by the library's own resolver
// before libcurl runs, so `hostLookup` stays 0.0 unless a client sets it.
//
// Every setter and adder calls the attribute's callback only when the stored value really
// changes (adding 0.0 is silent); adders return the new value.
//
//   auto timer = response->timerIs();
//   timer->totalInc(0.25);
//   timer->totalInc(0.5);                  // total() == 0.75
class RequestTimer : public Orb::Entity {
 public:
  class NotifieeConst : public Orb::BaseNotifiee<RequestTimer> {
   public:
    RETRA_REQUEST_TIMER_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, RETRA_REQUEST_TIMER_ATTRIBUTES);

  explicit RequestTimer(const Orb::Name& name = "timer") : Orb::Entity(name) {}

  RETRA_REQUEST_TIMER_ATTRIBUTES(ORB_ENTITY_ACCESSORS)
  // Each stored attribute with its getter and mutator, for streaming to other processes.
  ORB_ENTITY_REFLECTION(RequestTimer, RETRA_REQUEST_TIMER_ATTRIBUTES)

  [[nodiscard]] static const Orb::TypeNode* staticTypeNode();
  [[nodiscard]] const Orb::TypeNode* typeNode() const override { return staticTypeNode(); }

 protected:
  ~RequestTimer() override = default;

 private:
  RETRA_REQUEST_TIMER_ATTRIBUTES(ORB_ENTITY_MEMBERS)
};

}  // namespace Retra
