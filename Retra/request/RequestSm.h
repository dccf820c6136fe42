#pragma once

#include "Orb/Attribute.h"
#include "Orb/Notifiee.h"
#include "Orb/NotifieeList.h"
#include "Orb/Ptr.h"
#include "Orb/PtrInterface.h"
#include "Orb/TypeNode.h"
#include "Retra/model/Enumerations.h"
#include "Retra/model/Response.h"

// The attributes and operations of `RequestSm`, in declaration order (numbered from 258).
#define RETRA_REQUEST_SM_ATTRIBUTES(X)                              \
  X(FIXED, retraSm, Orb::Ptr<RetraSm>)                              \
  X(DERIVED, response, Orb::Ptr<Response>)                          \
  X(DERIVED, state, RequestState)                                   \
  X(SCALAR, curlData, void*, curlDataIs, onCurlData, nullptr)       \
  X(SCALAR, changed, bool, changedIs, onChanged, false)             \
  X(SCALAR, initialized, bool, initializedIs, onInitialized, false) \
  X(SCALAR, deleted, bool, deletedIs, onDeleted, false)             \
  X(OPERATION, handleResponseBody, void)                            \
  X(OPERATION, handleResponseStatusCode, void)                      \
  X(OPERATION, handleResponseLastError, void)                       \
  X(OPERATION, doCurlDispatchRequest, void)                         \
  X(OPERATION, doCurlBuildHttpHeader, void)                         \
  X(OPERATION, doCurlGetInfo, void)                                 \
  X(OPERATION, doScheduleRefresh, void)                             \
  X(OPERATION, doCurlShutdown, void)                                \
  X(OPERATION, handleInitialized, void)                             \
  X(OPERATION, handleDeletion, void)

namespace Retra {

class RetraSm;
struct CurlCallbackData;

// The state machine of one accepted request (type "Retra::RequestSm"): it configures and
// dispatches the request's libcurl transfer, harvests its result and tears it down, publishing
// into the request's `Response`. It watches that response, so that any change of its body,
// status code or last error raises `changed`. Its progress is the response's `requestState`
// (`state()` reads it, `stateIs` writes it).
//
// Ownership: the engine builds one per accepted request (`requestSmFactory`) and keeps it in its
// `requestSm` collection; the machine holds the engine and, through its `OrbResponse` reactor,
// the response. It only points at the transfer's `CurlCallbackData` record (`curlData`), which
// the engine allocates and which must be set before the machine goes: destruction always tears
// the transfer down (`doCurlShutdown`: lists, easy handle and output file released, `numFinish`
// counted, `stateFinished`), then hands the record back to the engine.
//
//   auto sm = Retra::requestSmFactory(engine, response);   // changed() is true: 3 traces
//   sm->curlDataIs(record);
//   response->statusCodeIs(200);                           // traced, changed stays true
//
// Notification: each setter notifies `RequestSm::NotifieeConst` observers only on a real change
// (`onCurlData`, `onChanged`, `onInitialized`, `onDeleted`; `onResponse` when the watched
// response is replaced). All trace lines begin with "[", the machine's address, "] ".
class RequestSm : public Orb::PtrInterface {
 public:
  class OrbResponse;

  class NotifieeConst : public Orb::BaseNotifiee<RequestSm> {
   public:
    RETRA_REQUEST_SM_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)
    virtual void onResponse() {}
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, RETRA_REQUEST_SM_ATTRIBUTES);

  // A machine bound to `retraSm` and `response`, built through `Orb::allocate`.
  [[nodiscard]] static Orb::Ptr<RequestSm> RequestSmIs(const Orb::Ptr<RetraSm>& retraSm,
                                                       const Orb::Ptr<Response>& response);

  // Watches `response` (unless null), which raises `changed` at once, then `handleInitialized`.
  // Dispatch is left to the engine.
  RequestSm(const Orb::Ptr<RetraSm>& retraSm, const Orb::Ptr<Response>& response);
  RequestSm(const RequestSm&) = delete;
  RequestSm& operator=(const RequestSm&) = delete;

  RETRA_REQUEST_SM_ATTRIBUTES(ORB_ENTITY_ACCESSORS)

  // The watched response, or null.
  [[nodiscard]] Orb::Ptr<Response> response() const noexcept;
  // Watches another response (a new reactor, which raises `changed` again); the same response
  // changes nothing. `responseDel` stops watching.
  void responseIs(const Orb::Ptr<Response>& response);
  void responseDel();

  // The response's `requestState`, `stateNotInit` without a response. `stateIs` sets it on the
  // response, which must exist.
  [[nodiscard]] RequestState state() const noexcept;
  void stateIs(RequestState state);

  // The response's body, status code or last error changed: one trace, `changed` raised.
  void handleResponseBody();
  void handleResponseStatusCode();
  void handleResponseLastError();

  // Configures the record's easy handle from the response (resolve list from the resolved
  // addresses, credentials, TLS, time-outs, the transfer callbacks, body, method, header lines,
  // URL) and adds it to the record's multi handle; the response ends in `stateSendHeader`. When
  // the multi handle refuses it: `errCurlAddHandle` and teardown. A null record, multi handle or
  // easy handle is fatal.
  void doCurlDispatchRequest();
  // Appends one "name: value" line per request header to the record's header list and sets
  // `stateSendHeader`; part of dispatch.
  void doCurlBuildHttpHeader();
  // Harvest of a finished transfer, whose result code the engine has stored in the record:
  // status code, error classification, effective URL, content type and lengths, and the
  // counter's and timer's statistics (added up over fetches); then the easy handle leaves the
  // multi handle. A null record, multi handle or easy handle is fatal.
  void doCurlGetInfo();
  // Arms the engine's refresh clock for the response's `lastUpdateTime` plus its
  // `timeoutRefresh`.
  void doScheduleRefresh();
  // Tears the transfer down: takes a still running transfer out of the engine's multi handle,
  // frees the header and resolve lists, cleans the easy handle up, closes the output file (each
  // only if present), then counts `numFinish` and sets `stateFinished`. A null `curlData` is
  // fatal.
  void doCurlShutdown();

  // Sets `initialized`.
  void handleInitialized();
  // The machine goes: teardown (`doCurlShutdown`).
  void handleDeletion();

  [[nodiscard]] Orb::NotifieeList& notifiees() const noexcept { return notifiees_; }
  [[nodiscard]] static const Orb::TypeNode* staticTypeNode();

 protected:
  // `handleDeletion`, the record back to the engine, then the reactor (and with it the
  // response) and last the engine are released. Nothing here may throw.
  ~RequestSm() override;

 private:
  // The record and response of a transfer that dispatch or harvest works on. A null record,
  // multi handle or easy handle is fatal; a machine without a response is a range error.
  struct TransferInHand {
    CurlCallbackData* cd;
    Orb::Ptr<Response> response;
  };
  [[nodiscard]] TransferInHand transferInHand() const;
  // The last step of dispatch: the easy handle into the multi handle; a refusal finishes the
  // fetch with `errCurlAddHandle`.
  void curlHandleAdded();

  mutable Orb::NotifieeList notifiees_;
  Orb::Ptr<OrbResponse> reactor_;
  RETRA_REQUEST_SM_ATTRIBUTES(ORB_ENTITY_MEMBERS)
};

// The machine's reactor on its response: body, status code and last error go to the three
// change handlers. Connected to a response, it runs all three at once, in that order.
class RequestSm::OrbResponse : public Response::NotifieeConst {
 public:
  OrbResponse(const Orb::Ptr<Response>& response, RequestSm* owner)
      : response_(response), owner_(owner) {}
  [[nodiscard]] const Orb::Ptr<Response>& response() const noexcept { return response_; }
  // Cleared by the owner before it lets the reactor go.
  void ownerIs(RequestSm* owner) noexcept { owner_ = owner; }

  void onBody() override;
  void onStatusCode() override;
  void onLastError() override;

 protected:
  void onNotifierConnected() override;

 private:
  Orb::Ptr<Response> response_;
  RequestSm* owner_;
};

// The engine's factory of request state machines: a new machine bound to the engine and the
// response.
[[nodiscard]] Orb::Ptr<RequestSm> requestSmFactory(const Orb::Ptr<RetraSm>& retraSm,
                                                   const Orb::Ptr<Response>& response);

}  // namespace Retra
