#include "retrad/ServiceTrace.h"

namespace Retrad {

Orb::TraceHandle& serviceTrace() {
  static auto* handle = new Orb::TraceHandle("Retrad");
  return *handle;
}

}  // namespace Retrad
