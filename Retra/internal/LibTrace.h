#pragma once

#include <cstdlib>

#include "Orb/Ptr.h"
#include "Orb/Trace.h"

namespace Retra::internal {

// The library's one trace facility, "RetraLib": created on first use and kept until the process
// exits. Levels: 1 failures; 2 entry into main handlers, life-cycle events and milestones; 3 state
// changes and per-item detail; 4 libcurl socket and timer callbacks; 5 libcurl's verbose output;
// 9 bookkeeping, clock nudges and teardown detail.
[[nodiscard]] Orb::TraceHandle& libTrace();

// How a request's trace lines name their state machine: its address, "0" for none.
[[nodiscard]] inline const void* tracePointer(const void* p) noexcept {
  return p;
}
template <class T>
[[nodiscard]] const void* tracePointer(const Orb::Ptr<T>& p) noexcept {
  return p.ptr();
}

// A broken internal invariant: traced at level 1 and fatal.
[[noreturn]] void assertionFailed(const char* expression, const char* function);

}  // namespace Retra::internal

// Writes one "RetraLib" line at `level` from file "Retra" with the calling function's name.
// `message` is a stream expression, composed only when the level is enabled:
//
//   RETRA_TRACE(2, "handleInitialized");
//   RETRA_TRACE(9, "num outstanding requests=" << count);
#define RETRA_TRACE(level, message)                                                               \
  do {                                                                                            \
    char retraTraceBuffer_[256];                                                                  \
    if (auto retraTraceLine_ = ::Orb::TraceHelper::createIfEnabled(::Retra::internal::libTrace(), \
                                                                   (level), retraTraceBuffer_)) { \
      retraTraceLine_->stream() << message;                                                       \
      retraTraceLine_->trace("Retra", __LINE__, __func__);                                        \
    }                                                                                             \
  } while (false)

// A line about one request: "[", the address of its `RequestSm` `sm` (a raw or counted pointer),
// then `message`, which begins with "] ":
//
//   RETRA_TRACE_SM(2, sm, "] parsing request URI");
#define RETRA_TRACE_SM(level, sm, message) \
  RETRA_TRACE(level, "[" << ::Retra::internal::tracePointer(sm) << message)

// Fatal unless `expression` holds; the failure names the expression as written.
#define RETRA_ASSERT(expression) \
  ((expression) ? void(0) : ::Retra::internal::assertionFailed(#expression, __func__))
