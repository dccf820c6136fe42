// The engine's reactors on its directories and clocks, the response reactors and the refresh
// clock's side of the engine.

#include <vector>

#include "Retra/engine/RetraSm.h"
#include "Retra/internal/LibTrace.h"

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

void RetraSm::OrbRetraResponseReactor::handleRequestState(const RequestKey&) {
  // Dispatch of ready requests and the close of finished ones are still to be added here.
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

void RetraSm::handleRefreshTimer() {
  // The refresh scan over all requests is still to be added here.
}

void RetraSm::nudgeRefreshClock(const double& t) {
  RETRA_TRACE(9, "nudgeRefreshClock"
                     << " setting refresh clock to: " << t);
  refreshClock_->timeMinIs(t);
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
