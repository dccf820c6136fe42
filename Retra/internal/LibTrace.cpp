#include "Retra/internal/LibTrace.h"

#include <cstdio>

namespace Retra::internal {

Orb::TraceHandle& libTrace() {
  static Orb::TraceHandle* handle = new Orb::TraceHandle("RetraLib");  // kept until exit
  return *handle;
}

void assertionFailed(const char* expression, const char* function) {
  char buffer[256];
  if (auto line = Orb::TraceHelper::createIfEnabled(libTrace(), 1, buffer)) {
    line->stream() << "assertion failed: " << expression;
    line->trace("Retra", __LINE__, function);
  }
  std::fprintf(stderr, "Retra: assertion failed in %s: %s\n", function, expression);
  std::abort();
}

}  // namespace Retra::internal
