// Request intake: new, changed and withdrawn requests, the request's state machine and callback
// record, the URI and the first step of name resolution.

#include <curl/curl.h>

#include <cstdlib>
#include <new>
#include <optional>

#include "Orb/Seconds.h"
#include "Retra/engine/RequestUri.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/internal/LibTrace.h"
#include "Retra/request/CurlCallbackData.h"
#include "Retra/request/RequestSm.h"

namespace Retra {

namespace {

// The request is gone from the directory: its resolver request (shared by every request of the
// host: a later request simply asks again), its state machine and its response go too. Its entry
// in `retraCurl` goes as well: it names a record that teardown has freed, and a host that keeps
// writing new URIs would otherwise grow the map by one entry for every URI it ever withdrew.
void withdraw(RetraSm& engine, const RequestKey& key) {
  if (Orb::Ptr<RequestSm> sm = engine.requestSm(key)) {
    const Orb::Ptr<Response> response = sm->response();
    const Orb::String host = response ? response->host() : Orb::String();
    if (!host.empty()) (void)engine.dnsrRequest()->requestDel(host);
    sm = nullptr;
    (void)engine.requestSmDel(key);  // torn down here, as the last reference goes
  }
  engine.retraCurlDel(key);
  (void)engine.retraResponse()->directory()->responseDel(key);
}

// The settings a fetch takes from its request, each through the response's setter.
void settingsCopied(Response& response, const Request& request) {
  response.authTypeIs(request.authType());
  response.usernameIs(request.username());
  response.passwordIs(request.password());
  response.sslVerifyPeerIs(request.sslVerifyPeer());
  response.pinnedPublicKeyIs(request.pinnedPublicKey());
  response.outputPathIs(request.outputPath());
  response.timeoutConnectIs(request.timeoutConnect());
  response.timeoutRequestIs(request.timeoutRequest());
  response.timeoutRefreshIs(request.timeoutRefresh());
  response.debugIs(request.debug());
}

}  // namespace

void RetraSm::handleRequest(const RequestKey& key) {
  const Orb::Ptr<RequestDir> requests = retraRequest_->directory();
  const Request request = requests->request(key);
  // Withdrawal comes first: it is handled even before the engine has started.
  if (!request) {
    withdraw(*this, key);
    return;
  }
  if (!initialized_) return;  // the start takes the request in
  const Orb::Ptr<Response> response = retraResponse_->directory()->responseIs(key);

  CurlCallbackData* cd = curlDataNew();
  if (!cd) {
    RETRA_TRACE(1, "handleRequest"
                       << " Failed to alloc memory for curl callback data");
    response->lastErrorIs(errCurlAlloc);
    response->requestStateIs(stateFinished);
    return;
  }
  cd->curlMultiHandle = static_cast<CURLM*>(curlMultiHandle_);
  CURL* easy = curl_easy_init();
  if (!easy) {
    RETRA_TRACE(1, "handleRequest"
                       << " Failed to initialize curl 'easy' handle");
    curlDataFree(cd);
    response->lastErrorIs(errCurlInit);
    response->requestStateIs(stateFinished);
    return;
  }
  cd->curlHandle = easy;
  cd->response = response.ptr();
  cd->requestBody = request.body();
  retraCurlIs(key, cd);
  curlHandleIs(easy, key);

  response->bodyIs(Orb::String());
  (void)response->timerIs();
  (void)response->counterIs();
  response->requestStateIs(stateNotInit);
  response->lastErrorIs(errNone);
  settingsCopied(*response, request);
  for (const auto& [name, value] : request.header()) {
    RETRA_TRACE(9, "Copying header " << name << "=" << value);
    response->requestheaderIs(name, value);
  }

  doBuildRequestSm(key);
  const Orb::Ptr<RequestSm> sm = requestSm(key);
  RETRA_TRACE_SM(2, sm, "] parsing request URI");
  Error error = errUriParse;
  RequestState state = stateFinished;
  if (const std::optional<RequestUri> uri = RequestUri::parsed(key.uri())) {
    RETRA_TRACE_SM(9, sm,
                   "] host=" << uri->host << " port=" << uri->port << " scheme=" << uri->scheme);
    response->portIs(uri->port);
    if (uri->hostIsAddress) {
      // An address literal: libcurl connects to it as it stands; `host` stays unset.
      response->resolvedIs(true);
      state = stateDispatchReady;
    } else {
      response->hostIs(uri->host);
      const auto record = dnsrRecord_->directory()->record(Orb::Name(uri->host));
      if (record && record->valid()) {
        for (const auto& [address, present] : record->ipAddress()) {
          RETRA_TRACE(9, "response->ipAddressIs( \"" << address << "\", true )");
          response->ipAddressIs(address, true);
        }
        for (const auto& [address, present] : record->ip6Address()) {
          RETRA_TRACE(9, "response->ip6AddressIs( \"" << address << "\", true )");
          response->ip6AddressIs(address, true);
        }
        response->resolvedIs(true);
        state = stateDispatchReady;
      } else {
        // One resolver request serves every request of the host: its count is never raised.
        const unsigned refCount = dnsrRequest_->request(uri->host);
        RETRA_TRACE(9, "Dnsr query host='" << uri->host << "' refCount=" << refCount);
        if (refCount != 0) {
          RETRA_TRACE(9, "Already resolving host='" << uri->host << "'");
        } else {
          dnsrRequest_->requestIs(uri->host, 1);
        }
        state = stateDnsResolving;
      }
    }
    // Checked only now, so a host name under another scheme has been handed to the resolver.
    if (uri->scheme == "https") {
      response->schemeIs(https);
      error = errNone;
    } else if (uri->scheme == "http") {
      response->schemeIs(http);
      error = errNone;
    } else {
      RETRA_TRACE_SM(1, sm, "] disallowed request scheme='" << uri->scheme << "'");
      error = errUnsupportedScheme;
      state = stateFinished;
    }
  } else {
    RETRA_TRACE_SM(1, sm, "] URI parsing failed");
  }

  RETRA_TRACE(9, "num outstanding requests=" << requests->request().size());
  RETRA_TRACE(9, "num running requests=" << numRunningRequests());
  // The error first: whatever reacts to the state must see the final error.
  response->lastErrorIs(error);
  response->requestStateIs(state);
}

void RetraSm::doBuildRequestSm(const RequestKey& key) {
  const Orb::Ptr<Response> response = retraResponse_->directory()->response(key);
  const Orb::Ptr<RequestSm> sm = requestSmFactory(Orb::Ptr<RetraSm>(this), response);
  RETRA_TRACE_SM(2, sm, "] building state machine for " << key.method() << " " << key.uri());
  sm->curlDataIs(retraCurl(key));
  requestSmIs(key, sm);
  if (response) (void)response->numRequestInc(1);
  refreshClock_->timeMinIs(Orb::System::currentTime());
}

void RetraSm::doResetRequest(const RequestKey& key) {
  const Orb::Ptr<Response> response = retraResponse_->directory()->response(key);
  Orb::Ptr<RequestSm> sm = requestSm(key);
  if (response) response->doReset();
  if (sm) sm->changedIs(false);
  sm = nullptr;
  (void)requestSmDel(key);
  if (response) response->requestStateIs(stateNotInit);
  refreshClock_->timeMinIs(Orb::System::currentTime());
}

CurlCallbackData* RetraSm::curlDataNew() {
  void* memory = std::calloc(1, sizeof(CurlCallbackData));
  if (!memory) return nullptr;
  auto* cd = new (memory) CurlCallbackData();
  liveCurlData_.insert(cd);
  return cd;
}

void RetraSm::curlDataFree(void* record) {
  if (!record || liveCurlData_.erase(record) == 0) return;
  // A callback of the transfer may still be on the stack, holding the record.
  whenOutOfCurl([cd = static_cast<CurlCallbackData*>(record)] {
    cd->~CurlCallbackData();
    std::free(cd);
  });
}

}  // namespace Retra
