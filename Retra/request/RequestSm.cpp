// The request state machine's life: construction, its reactor on the response, the change
// handlers and destruction.

#include "Retra/request/RequestSm.h"

#include "Retra/engine/RetraSm.h"
#include "Retra/internal/LibTrace.h"

namespace Retra {

Orb::Ptr<RequestSm> RequestSm::RequestSmIs(const Orb::Ptr<RetraSm>& retraSm,
                                           const Orb::Ptr<Response>& response) {
  return Orb::allocate<RequestSm>(retraSm, response);
}

Orb::Ptr<RequestSm> requestSmFactory(const Orb::Ptr<RetraSm>& retraSm,
                                     const Orb::Ptr<Response>& response) {
  return RequestSm::RequestSmIs(retraSm, response);
}

RequestSm::RequestSm(const Orb::Ptr<RetraSm>& retraSm, const Orb::Ptr<Response>& response)
    : retraSm_(retraSm) {
  // The reactor holds a plain pointer back: no counted pointer to this machine exists yet.
  if (response) {
    reactor_ = Orb::allocate<OrbResponse>(response, this);
    reactor_->notifierIs(response);
  }
  handleInitialized();
}

RequestSm::~RequestSm() {
  handleDeletion();
  if (retraSm_) retraSm_->curlDataFree(curlData_);
  // A late notification must not reach this machine any more.
  if (reactor_) reactor_->ownerIs(nullptr);
  notifiees_.deleteAll();
  reactor_ = nullptr;
  retraSm_ = nullptr;
}

Orb::Ptr<Response> RequestSm::response() const noexcept {
  return reactor_ ? reactor_->response() : Orb::Ptr<Response>();
}

void RequestSm::responseIs(const Orb::Ptr<Response>& response) {
  if (!response) {
    responseDel();
    return;
  }
  if (reactor_ && reactor_->response() == response) return;
  Orb::Ptr<OrbResponse> old = reactor_;
  reactor_ = Orb::allocate<OrbResponse>(response, this);
  if (old) old->ownerIs(nullptr);
  old = nullptr;
  reactor_->notifierIs(response);
  notifiees().doVisit(&NotifieeConst::onResponse);
}

void RequestSm::responseDel() {
  if (!reactor_) return;
  reactor_->ownerIs(nullptr);
  reactor_ = nullptr;
  notifiees().doVisit(&NotifieeConst::onResponse);
}

RequestState RequestSm::state() const noexcept {
  return reactor_ ? reactor_->response()->requestState() : stateNotInit;
}

void RequestSm::stateIs(RequestState state) {
  const Orb::Ptr<Response> response = this->response();
  if (!response) Orb::throwRangeException("null ValidPtr");
  response->requestStateIs(state);
}

void RequestSm::handleResponseBody() {
  RETRA_TRACE_SM(2, this, "] changed: response body");
  changedIs(true);
}

void RequestSm::handleResponseStatusCode() {
  RETRA_TRACE_SM(2, this,
                 "] changed: response statusCode now " << unsigned(response()->statusCode()));
  changedIs(true);
}

void RequestSm::handleResponseLastError() {
  RETRA_TRACE_SM(2, this, "] changed: response lastError now " << response()->lastError());
  changedIs(true);
}

void RequestSm::handleInitialized() {
  initializedIs(true);
}

void RequestSm::handleDeletion() {
  RETRA_TRACE_SM(9, this, "] shutting down request state machine");
  doCurlShutdown();
}

const Orb::TypeNode* RequestSm::staticTypeNode() {
  static const auto* node = new Orb::TypeNode(
      "Retra::RequestSm", Orb::TypeNode::Kind::entity,
      ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, RETRA_REQUEST_SM_ATTRIBUTES));
  return node;
}

// ---- The reactor on the response

void RequestSm::OrbResponse::onBody() {
  if (!isTearingDown() && owner_) owner_->handleResponseBody();
}

void RequestSm::OrbResponse::onStatusCode() {
  if (!isTearingDown() && owner_) owner_->handleResponseStatusCode();
}

void RequestSm::OrbResponse::onLastError() {
  if (!isTearingDown() && owner_) owner_->handleResponseLastError();
}

void RequestSm::OrbResponse::onNotifierConnected() {
  // Each step only while the reactor is still its owner's.
  onBody();
  onStatusCode();
  onLastError();
}

}  // namespace Retra
