#include "Retra/engine/ParkedResponseRecovery.h"

#include <algorithm>
#include <vector>

#include "Orb/ActivityManager.h"
#include "Orb/Exception.h"
#include "Retra/engine/EngineReactors.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/internal/LibTrace.h"

namespace Retra {

Orb::Ptr<ParkedResponseRecovery> ParkedResponseRecovery::ParkedResponseRecoveryIs(
    const Orb::Ptr<RetraSm>& engine, Orb::Seconds grace) {
  return Orb::allocate<ParkedResponseRecovery>(engine, grace);
}

ParkedResponseRecovery::ParkedResponseRecovery(const Orb::Ptr<RetraSm>& engine, Orb::Seconds grace)
    : engine_(engine), grace_(std::max(grace, 0.01)) {
  if (!engine_) Orb::throwRangeException("null ValidPtr");
  const Orb::Ptr<Orb::Clock> clock = Orb::activityManager()->clock();
  notifierIs(clock);
  timeMinIs(clock->now() + grace_);
}

void ParkedResponseRecovery::onTime() {
  const auto responses = engine_->retraResponse();
  if (engine_->initialized() && responses && responses->directory()) {
    KeySet parkedNow;
    std::vector<RequestKey> stuck;
    for (const auto& [key, response] : responses->directory()->response()) {
      if (response->requestState() != stateDispatchReady || engine_->requestSm(key)) continue;
      if (parked_.count(key)) {
        stuck.push_back(key);
      } else {
        parkedNow.insert(key);
      }
    }
    parked_ = std::move(parkedNow);
    for (const RequestKey& key : stuck) {
      RETRA_TRACE(2, "resetting parked response " << key.method() << " " << key.uri());
      engine_->doResetRequest(key);
      ++resets_;
    }
  }
  timeMinIs(notifier()->now() + grace_);  // the clock's time, manual or real, as at the start
}

}  // namespace Retra
