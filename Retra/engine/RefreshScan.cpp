// The refresh scan: restarts requests waiting to start, dispatches ready ones and fetches
// finished ones again once their refresh period has run out.

#include <algorithm>
#include <limits>
#include <vector>

#include "Orb/Seconds.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/internal/LibTrace.h"
#include "Retra/request/RequestSm.h"

namespace Retra {

void RetraSm::handleRefreshTimer() {
  RETRA_TRACE(2, "handleRefreshTimer");
  Orb::Seconds nextScan = std::numeric_limits<Orb::Seconds>::infinity();
  const Orb::Seconds now = Orb::System::currentTime();
  const Orb::Ptr<RequestDir> requests = retraRequest_->directory();
  const Orb::Ptr<ResponseDir> responses = retraResponse_->directory();
  // Intake below may change the directories' maps; the walk keeps to the keys it started with.
  std::vector<RequestKey> keys;
  for (const auto& [key, request] : requests->request()) keys.push_back(key);

  for (const RequestKey& key : keys) {
    const Orb::Ptr<Response> response = responses->response(key);
    if (!response) continue;
    const RequestState state = response->requestState();
    RETRA_TRACE(9, key.uri() << " " << key.method() << " state=" << state);
    if (state == stateNotInit) {
      // One restart per wake-up: the clock armed for now brings the next scan straight away.
      handleRequest(key);
      nudgeRefreshClock(now);
      return;
    }
    if (state == stateDispatchReady) {
      if (const Orb::Ptr<RequestSm> sm = requestSm(key)) {
        sm->doCurlDispatchRequest();
      } else {
        RETRA_TRACE(9, "RequestSm already deleted for" << key);
      }
      continue;
    }
    const Orb::Seconds refresh = requests->request(key).timeoutRefresh();
    if (response->lastUpdateTime() != 0.0) {
      nextScan = std::min(nextScan, response->lastUpdateTime() + refresh);
    }
    if (state == stateFinished && now > response->lastUpdateTime() + refresh) {
      RETRA_TRACE(9, "Refreshing request");
      handleRequest(key);
    }
  }

  // An earliest deadline already passed was served in this very scan.
  if (nextScan <= std::numeric_limits<Orb::Seconds>::max() && nextScan >= now) {
    RETRA_TRACE(9, "Next scan @" << nextScan);
    nudgeRefreshClock(nextScan);
  }
}

void RetraSm::nudgeRefreshClock(const double& t) {
  RETRA_TRACE(9, "nudgeRefreshClock"
                     << " setting refresh clock to: " << t);
  refreshClock_->timeMinIs(t);
}

}  // namespace Retra
