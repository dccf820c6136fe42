#include "Dnsr/internal/DnsrTrace.h"

namespace Dnsr::internal {

Orb::TraceHandle& dnsrTrace() {
  static Orb::TraceHandle* handle = new Orb::TraceHandle("Dnsr");  // kept until exit
  return *handle;
}

}  // namespace Dnsr::internal
