#pragma once

#include <cstdint>

#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Orb/Attribute.h"
#include "Orb/Entity.h"
#include "Orb/Notifiee.h"
#include "Orb/Ptr.h"
#include "Orb/String.h"
#include "Orb/TypeNode.h"
#include "Retra/model/Enumerations.h"
#include "Retra/model/RequestCounter.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/RequestTimer.h"

// The attributes of `Response`, in declaration order (numbered from 258), with their initial
// values. `doReset` is a declared operation and takes the number after `port`.
#define RETRA_RESPONSE_ATTRIBUTES(X)                                                             \
  X(FIXED, requestKey, RequestKey)                                                               \
  X(DERIVED, method, Method)                                                                     \
  X(DERIVED, uri, Orb::String)                                                                   \
  X(SCALAR, requestState, RequestState, requestStateIs, onRequestState, stateNotInit)            \
  X(SCALAR, authType, HttpAuthenticationType, authTypeIs, onAuthType, authNone)                  \
  X(SCALAR, username, Orb::String, usernameIs, onUsername, {})                                   \
  X(SCALAR, password, Orb::String, passwordIs, onPassword, {})                                   \
  X(SCALAR, sslVerifyPeer, bool, sslVerifyPeerIs, onSslVerifyPeer, false)                        \
  X(SCALAR, pinnedPublicKey, Orb::String, pinnedPublicKeyIs, onPinnedPublicKey, {})              \
  X(SCALAR, outputPath, Orb::String, outputPathIs, onOutputPath, {})                             \
  X(SCALAR, timeoutConnect, uint16_t, timeoutConnectIs, onTimeoutConnect, 60)                    \
  X(SCALAR, timeoutRequest, uint16_t, timeoutRequestIs, onTimeoutRequest, 60)                    \
  X(SCALAR, timeoutRefresh, uint32_t, timeoutRefreshIs, onTimeoutRefresh, 1800)                  \
  X(SCALAR, debug, bool, debugIs, onDebug, false)                                                \
  X(DERIVED, finished, bool)                                                                     \
  X(SCALAR, scheme, Scheme, schemeIs, onScheme, http)                                            \
  X(SCALAR, statusCode, uint16_t, statusCodeIs, onStatusCode, 0)                                 \
  X(SCALAR, effectiveUrl, Orb::String, effectiveUrlIs, onEffectiveUrl, {})                       \
  X(SCALAR, lastError, Error, lastErrorIs, onLastError, errNone)                                 \
  X(SCALAR, lastErrorMessage, Orb::String, lastErrorMessageIs, onLastErrorMessage, {})           \
  X(SCALAR, lastUpdateTime, double, lastUpdateTimeIs, onLastUpdateTime, 0.0)                     \
  X(SCALAR, lastChangeTime, double, lastChangeTimeIs, onLastChangeTime, 0.0)                     \
  X(COLLECTION, requestheader, Orb::String, Orb::String, requestheaderIs, requestheaderDel,      \
    requestheaderDelAll, onRequestheader, onRequestheaderImmediate)                              \
  X(COLLECTION, header, Orb::String, Orb::String, headerIs, headerDel, headerDelAll, onHeader,   \
    onHeaderImmediate)                                                                           \
  X(SCALAR, body, Orb::String, bodyIs, onBody, {})                                               \
  X(SCALAR, contentType, Orb::String, contentTypeIs, onContentType, {})                          \
  X(SCALAR, contentLengthUpload, long long, contentLengthUploadIs, onContentLengthUpload, -1)    \
  X(SCALAR, contentLengthDownload, long long, contentLengthDownloadIs, onContentLengthDownload,  \
    -1)                                                                                          \
  X(CHILD, counter, RequestCounter, counterIs, counterDel, onCounter)                            \
  X(CHILD, timer, RequestTimer, timerIs, timerDel, onTimer)                                      \
  X(COUNTER, numRequest, uint32_t, numRequestIs, numRequestInc, onNumRequest, 0)                 \
  X(SCALAR, resolved, bool, resolvedIs, onResolved, false)                                       \
  X(SCALAR, host, Orb::String, hostIs, onHost, {})                                               \
  X(COLLECTION, ipAddress, Ipkit::IpAddr, bool, ipAddressIs, ipAddressDel, ipAddressDelAll,      \
    onIpAddress, onIpAddressImmediate)                                                           \
  X(COLLECTION, ip6Address, Ipkit::Ip6Addr, bool, ip6AddressIs, ip6AddressDel, ip6AddressDelAll, \
    onIp6Address, onIp6AddressImmediate)                                                         \
  X(SCALAR, port, uint16_t, portIs, onPort, 0)                                                   \
  X(OPERATION, doReset, void)

namespace Retra {

// The outcome of one request, and the library's output: an entity (type "Retra::Response"),
// one per `RequestKey`, created by `ResponseDir::responseIs` and written only by the engine.
// Clients watch it through a `Response::NotifieeConst`.
//
// It holds a copy of the request's settings (`authType` .. `debug`, copied in when the engine
// takes the request in; note that `sslVerifyPeer` starts false here although a request defaults
// it to true), the progress (`requestState`; `finished()` is true in stateFinished), the HTTP
// result (`statusCode`, the received `header` lines, `body` unless an `outputPath` was given,
// `contentType`, `effectiveUrl`, the content lengths with -1 for unknown), the request headers
// as sent (`requestheader`), the last error, the clock times of the last update and the last
// change, the resolution (`scheme`, `host`, `port`, `resolved`, and the address sets `ipAddress`
// / `ip6Address`), how many times the request was dispatched (`numRequest`), and two children,
// "counter" and "timer", that accumulate statistics across refreshes.
//
// Notification: every setter stores and calls its `on...` callback only when the value really
// changes; an equal value is silent. A collection change (`headerIs` adding a member or changing
// its value, `headerDel` removing one) calls the keyed `onHeader(name)` and then
// `onHeaderImmediate()`, synchronously. `headerDelAll()` does that for each member it removes
// and then, if it removed anything, calls the key-less `onHeader()` once. The same holds for
// `requestheader`, `ipAddress` and `ip6Address`. `counterIs()` / `timerIs()` create the child on
// first call (with this response as parent) and then call `onCounter()` / `onTimer()`.
//
//   auto response = responseDir->responseIs(Retra::RequestKey(Retra::GET, "http://127.0.0.1/"));
//   response->statusCodeIs(200);           // onStatusCode()
//   response->statusCodeIs(200);           // silent
//   response->headerIs("Content-Type", "text/html");   // onHeader("Content-Type"), immediate
//   response->counterIs()->numFinishInc(1);
//
// Ownership: the `ResponseDir` holds the response; the response holds its children. On
// destruction the counter is released first, then the timer, then the rest.
class Response : public Orb::Entity {
 public:
  class NotifieeConst : public Orb::BaseNotifiee<Response> {
   public:
    RETRA_RESPONSE_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)

   protected:
    // Does nothing; a reactor overrides it to replay the state it finds.
    void onNotifierConnected() override {}
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, RETRA_RESPONSE_ATTRIBUTES);

  // A response with nothing fetched yet, named after its key ("GET http://...").
  explicit Response(const RequestKey& key);

  RETRA_RESPONSE_ATTRIBUTES(ORB_ENTITY_ACCESSORS)
  // Each stored attribute with its getter and mutator, for streaming to other processes.
  ORB_ENTITY_REFLECTION(Response, RETRA_RESPONSE_ATTRIBUTES)
  [[nodiscard]] Method method() const noexcept { return requestKey_.method(); }
  [[nodiscard]] const Orb::String& uri() const noexcept { return requestKey_.uri(); }
  [[nodiscard]] bool finished() const noexcept { return requestState_ == stateFinished; }

  // Returns the response to "nothing fetched yet" before a new fetch of the same key, each
  // attribute through its setter so that every real change is notified, in this order:
  // statusCode, lastError, effectiveUrl, lastErrorMessage, lastUpdateTime, lastChangeTime, the
  // received headers, body, contentType, the two content lengths (-1), resolved, host, the two
  // address sets, port. It leaves alone the key, requestState, the copied request settings,
  // scheme, the sent request headers, the counter and timer children and numRequest, so that
  // statistics accumulate across refreshes.
  void doReset();

  [[nodiscard]] static const Orb::TypeNode* staticTypeNode();
  [[nodiscard]] const Orb::TypeNode* typeNode() const override { return staticTypeNode(); }

 protected:
  ~Response() override;

 private:
  RETRA_RESPONSE_ATTRIBUTES(ORB_ENTITY_MEMBERS)
};

}  // namespace Retra
