#pragma once

#include <cstddef>

#include "Retra/model/Response.h"
#include "common/BenchTally.h"

namespace RetraBench {

// What a finished response reports for request `index`, for BenchTally: its status, whether
// the transfer succeeded (else the error with its message), the body's size and the announced
// Content-Length. Both library hosts read it the same way, from the library's own response or
// from a mirror of the service's.
[[nodiscard]] Outcome responseOutcome(size_t index, const Retra::Response& response);

}  // namespace RetraBench
