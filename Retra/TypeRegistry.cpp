#include "Retra/TypeRegistry.h"

#include "Orb/TypeNode.h"
#include "Retra/model/Enumerations.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestCounter.h"
#include "Retra/model/RequestDir.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/RequestTimer.h"
#include "Retra/model/Response.h"
#include "Retra/model/ResponseDir.h"

namespace Retra {

void registerTypes() {
  // The entity model: enumerations and the key, then requests, responses and their children.
  Orb::typeNodeIs(&descriptorOf(Method{}));
  Orb::typeNodeIs(&descriptorOf(Error{}));
  Orb::typeNodeIs(&descriptorOf(RequestState{}));
  Orb::typeNodeIs(&descriptorOf(Scheme{}));
  Orb::typeNodeIs(&descriptorOf(HttpAuthenticationType{}));
  Orb::typeNodeIs(RequestKey::typeNode());
  Orb::typeNodeIs(Request::typeNode());
  Orb::typeNodeIs(RequestDir::staticTypeNode());
  Orb::typeNodeIs(Response::staticTypeNode());
  Orb::typeNodeIs(ResponseDir::staticTypeNode());
  Orb::typeNodeIs(RequestCounter::staticTypeNode());
  Orb::typeNodeIs(RequestTimer::staticTypeNode());

  // ---- The engine's and the request state machine's types are registered here, after the
  // ---- model's (Root, RetraSm, RequestSm, ...).
}

namespace {
// Registration at library load.
[[maybe_unused]] const bool typesRegistered = (registerTypes(), true);
}  // namespace

}  // namespace Retra
