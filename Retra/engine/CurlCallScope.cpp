#include "Retra/engine/CurlCallScope.h"

#include <utility>

#include "Retra/engine/RetraSm.h"

namespace Retra {

CurlCallScope::CurlCallScope(RetraSm& engine) : engine_(&engine) {
  ++engine_->insideCurl_;
}

CurlCallScope::~CurlCallScope() {
  if (--engine_->insideCurl_ > 0) return;
  // Out of libcurl now: whatever these actions queue in turn runs at once.
  auto actions = std::exchange(engine_->outOfCurl_, {});
  for (auto& action : actions) action();
}

}  // namespace Retra
