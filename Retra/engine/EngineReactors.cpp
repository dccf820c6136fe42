// The engine's reactors on its directories and clocks, and the response reactors' dispatch and
// close of their requests.

#include <vector>

#include "Orb/Seconds.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/internal/LibTrace.h"
#include "Retra/request/RequestSm.h"

namespace Retra {

// ---- The request directory

void RetraSm::OrbRetraRequest::onRequest(const RequestKey& key) {
  if (isTearingDown() || !engine_) return;
  engine_->handleRequest(key);
}

void RetraSm::OrbRetraRequest::onNotifierConnected() {
  if (isTearingDown() || !engine_ || !directory_) return;
  std::vector<RequestKey> keys;
  for (const auto& [key, request] : directory_->request()) keys.push_back(key);
  for (const RequestKey& key : keys) onRequest(key);
}

// ---- The response directory and each response

void RetraSm::OrbRetraResponse::onResponse(const RequestKey& key) {
  if (isTearingDown() || !engine_ || !directory_) return;
  if (Orb::Ptr<const Response> response = directory_->response(key)) {
    (void)engine_->retraResponseReactorIs(response);
  } else {
    engine_->retraResponseReactorDel(key);
  }
}

void RetraSm::OrbRetraResponse::onResponseImmediate() {
  if (isTearingDown() || !engine_ || !directory_) return;
  // The keyed notification of the same change has already brought that key in step, and a
  // connection (or re-registration) brings everything in step. In between, while the reactor
  // hears every change, reactors and responses can only differ in number: equal counts mean
  // nothing is left to do, and skipping the pass keeps a change from costing the size of the
  // directory.
  if (engine_->retraResponseReactor().size() == directory_->response().size()) return;
  bringAllInStep();
}

void RetraSm::OrbRetraResponse::bringAllInStep() {
  if (isTearingDown() || !engine_ || !directory_) return;
  RetraSm* engine = engine_;
  std::vector<Orb::Ptr<const Response>> responses;
  for (const auto& [key, response] : directory_->response()) responses.emplace_back(response);
  for (const auto& response : responses) (void)engine->retraResponseReactorIs(response);
  std::vector<RequestKey> gone;
  for (const auto& [key, reactor] : engine->retraResponseReactor()) {
    if (!directory_->response(key)) gone.push_back(key);
  }
  for (const RequestKey& key : gone) engine->retraResponseReactorDel(key);
}

void RetraSm::OrbRetraResponseReactor::onRequestState() {
  if (isTearingDown() || !engine_ || !response_) return;
  handleRequestState(response_->requestKey());
}

void RetraSm::OrbRetraResponseReactor::handleRequestState(const RequestKey& key) {
  const RequestState state = response_->requestState();
  // The states in between only trace: without those traces there is nothing to look up.
  if (state != stateDispatchReady && state != stateFinished && !internal::libTrace().isEnabled(3) &&
      !internal::libTrace().isEnabled(9)) {
    return;
  }
  RetraSm* engine = engine_;
  // Dispatch and close may drop this reactor (a client reacting to the response).
  const Orb::Ptr<OrbRetraResponseReactor> self(this);
  const Orb::Ptr<RequestSm> sm = engine->requestSm(key);
  RETRA_TRACE_SM(3, sm, "] state=" << state);
  if (!sm) {
    // A machine being replaced or withdrawn finishes its response on its way out.
    RETRA_TRACE(9, "[" << static_cast<const void*>(this) << "] bad RequestSm handle");
    return;
  }
  if (state == stateDispatchReady) {
    sm->doCurlDispatchRequest();
    return;
  }
  if (state != stateFinished) return;
  const Orb::Seconds now = Orb::System::currentTime();
  // The reactor watches its response read-only; the engine writes it through its directory.
  const Orb::Ptr<Response> response = engine->retraResponse()->directory()->response(key);
  if (!response) return;
  RETRA_TRACE_SM(9, sm, "] lastUpdateTimeIs( " << now << " )");
  response->lastUpdateTimeIs(now);
  if (sm->changed()) {
    RETRA_TRACE_SM(9, sm, "] lastChangeTimeIs( " << now << " )");
    response->lastChangeTimeIs(now);
  }
  // A cancelled or never started transfer is not fetched again by itself.
  const Error error = response->lastError();
  if (error != errCurlInit && error != errCancel) sm->doScheduleRefresh();
  (void)engine->requestSmDel(key);
}

// ---- The clocks

void RetraSm::OrbRefreshClock::onTime() {
  if (engine_) engine_->handleRefreshTimer();
}

void RetraSm::OrbRefreshClock::onNotifierConnected() {
  if (isTearingDown() || !engine_) return;
  engine_->handleRefreshTimer();
}

void RetraSm::OrbTimeoutClock::onTime() {
  if (engine_) engine_->handleTimeout();
}

// ---- Sockets

void RetraSm::OrbSocketFd::handleReady() {
  RetraSm* engine = engine_;
  if (isTearingDown() || !engine) return;
  // libcurl may drop this reactor while it acts on the socket.
  const Orb::Ptr<OrbSocketFd> self(this);
  engine->handleSocketEv(notifier()->descriptor());
}

}  // namespace Retra
