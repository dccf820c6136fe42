#pragma once

#include "Orb/Trace.h"

namespace Dnsr::internal {

// The service's trace facility, "Dnsr": created on first use and kept until the process exits.
// Levels: 1 faults, 2 look-ups started, 3 answers, errors and refreshes, 9 socket and timer
// detail.
[[nodiscard]] Orb::TraceHandle& dnsrTrace();

}  // namespace Dnsr::internal

// Writes one "Dnsr" trace line at `level`; `message` is a stream expression, formatted only when
// the level is enabled:  DNSR_TRACE(2, "looking up host='" << host << "'");
#define DNSR_TRACE(level, message)                                                               \
  do {                                                                                           \
    char dnsrTraceBuffer_[256];                                                                  \
    if (auto dnsrTraceLine_ = ::Orb::TraceHelper::createIfEnabled(::Dnsr::internal::dnsrTrace(), \
                                                                  (level), dnsrTraceBuffer_)) {  \
      dnsrTraceLine_->stream() << message;                                                       \
      dnsrTraceLine_->trace(__FILE_NAME__, __LINE__, __func__);                                  \
    }                                                                                            \
  } while (false)
