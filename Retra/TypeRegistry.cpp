#include "Retra/TypeRegistry.h"

#include "Orb/TypeNode.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/engine/Root.h"
#include "Retra/model/Enumerations.h"
#include "Retra/model/Request.h"
#include "Retra/model/RequestCounter.h"
#include "Retra/model/RequestDir.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/RequestTimer.h"
#include "Retra/model/Response.h"
#include "Retra/model/ResponseDir.h"
#include "Retra/request/RequestSm.h"

namespace Retra {

void registerTypes() {
  Orb::typeNodeIs(RetraSm::staticTypeNode());
  Orb::typeNodeIs(RequestTimer::staticTypeNode());
  Orb::typeNodeIs(ResponseDir::staticTypeNode());
  Orb::typeNodeIs(&descriptorOf(HttpAuthenticationType{}));
  Orb::typeNodeIs(&descriptorOf(RequestState{}));
  Orb::typeNodeIs(&descriptorOf(Scheme{}));
  Orb::typeNodeIs(Request::typeNode());
  Orb::typeNodeIs(&descriptorOf(Error{}));
  Orb::typeNodeIs(RequestKey::typeNode());
  Orb::typeNodeIs(Root::staticTypeNode());
  Orb::typeNodeIs(RequestDir::staticTypeNode());
  Orb::typeNodeIs(Response::staticTypeNode());
  Orb::typeNodeIs(RequestSm::staticTypeNode());
  Orb::typeNodeIs(RequestCounter::staticTypeNode());
  Orb::typeNodeIs(&descriptorOf(Method{}));
}

namespace {
// Registration at library load.
[[maybe_unused]] const bool typesRegistered = (registerTypes(), true);
}  // namespace

}  // namespace Retra
