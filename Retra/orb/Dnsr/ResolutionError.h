#pragma once

#include <cstdint>

#include "Orb/Enumeration.h"

namespace Dnsr {

// Why a host look-up failed: the value of `ResolutionRecord::lastError`, registered as the
// enumeration "Dnsr::ResolutionError". Zero means no error.
//
//   if (record->lastError() == Dnsr::errTimeout) ...
//   Dnsr::resolutionErrorType().stringValue(record->lastError());   // "errTimeout"
enum ResolutionError : uint32_t {
  errNone = 0,
  errNoSuchName = 1,     // the name does not exist (NXDOMAIN)
  errNoData = 2,         // the name exists but has neither A nor AAAA records
  errServerFailure = 3,  // the server failed, sent a broken answer or could not be reached
  errRefused = 4,        // the server refused to answer
  errTimeout = 5,        // no server answered in time
  errBadName = 6,        // the host name cannot be put in a query
  errOther = 7,          // anything else (out of memory, unreadable configuration, ...)
};

// The descriptor of "Dnsr::ResolutionError", registered when the program loads.
[[nodiscard]] const Orb::EnumDescriptor& resolutionErrorType();

// The error for a c-ares status code (ARES_SUCCESS gives `errNone`).
[[nodiscard]] ResolutionError resolutionErrorOfAresStatus(int status) noexcept;

}  // namespace Dnsr
