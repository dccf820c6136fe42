#pragma once

#include "Orb/Trace.h"

namespace Retrad {

// The service's trace facility, "Retrad": level 1 failures, 2 connections, disconnections and
// life-cycle events, 3 each command.
[[nodiscard]] Orb::TraceHandle& serviceTrace();

}  // namespace Retrad

#define RETRAD_TRACE(level, message)                                  \
  do {                                                                \
    char retradTraceBuffer_[256];                                     \
    if (auto retradTraceLine_ = ::Orb::TraceHelper::createIfEnabled(  \
            ::Retrad::serviceTrace(), (level), retradTraceBuffer_)) { \
      retradTraceLine_->stream() << message;                          \
      retradTraceLine_->trace("Retrad", __LINE__, __func__);          \
    }                                                                 \
  } while (false)
