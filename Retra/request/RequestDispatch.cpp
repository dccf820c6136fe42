// The request state machine's dispatch: the response's settings become options of the easy
// handle, which then joins the engine's multi handle.

#include <curl/curl.h>

#include <string>

#include "Orb/Exception.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/internal/LibTrace.h"
#include "Retra/request/CurlCallbackData.h"
#include "Retra/request/RequestSm.h"
#include "Retra/request/TransferCallbacks.h"

namespace Retra {

namespace {

constexpr const char* defaultUserAgent = "Mozilla/5.0 Retra/1.0.0";
constexpr long maxRedirects = 64;
// HTTP, HTTPS, FTP, FTPS, SCP and SFTP, for requests and for redirects alike.
constexpr long allowedProtocols = CURLPROTO_HTTP | CURLPROTO_HTTPS | CURLPROTO_FTP |
                                  CURLPROTO_FTPS | CURLPROTO_SCP | CURLPROTO_SFTP;
static_assert(allowedProtocols == 63);

// "-host:port": drops whatever libcurl has cached for the host and port.
std::string resolveRemoval(const Orb::String& host, unsigned port) {
  return "-" + std::string(host.view()) + ":" + std::to_string(port);
}

// "host:port:address": libcurl connects to the address for the host and port.
std::string resolveEntry(const Orb::String& host, unsigned port, const Orb::String& address) {
  return std::string(host.view()) + ":" + std::to_string(port) + ":" + std::string(address.view());
}

// The request line's method for the methods libcurl does not choose by itself; null for every
// other method, which goes out as libcurl's GET (HEAD included, with its body).
const char* customRequestOf(Method method) {
  switch (method) {
    case PUT:
      return "PUT";
    case DELETE:
      return "DELETE";
    case PATCH:
      return "PATCH";
    default:
      return nullptr;
  }
}

// The libcurl options read here are deprecated in favour of newer forms; these are the ones the
// engine sets on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void protocolsLimited(CURL* easy) {
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS, allowedProtocols);
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS, allowedProtocols);
}
#pragma GCC diagnostic pop

}  // namespace

void RequestSm::doCurlDispatchRequest() {
  RETRA_TRACE_SM(2, this, "] dispatching request");
  const auto [cd, response] = transferInHand();
  CURL* easy = cd->curlHandle;

  // Pin the host to the addresses the engine resolved, IPv6 first, so that libcurl looks
  // nothing up itself.
  const Orb::String host = response->host();
  const unsigned port = response->port();
  if (!host.empty() && port != 0) {
    cd->resolveList = curl_slist_append(cd->resolveList, resolveRemoval(host, port).c_str());
    for (const auto& [address, present] : response->ip6Address()) {
      cd->resolveList =
          curl_slist_append(cd->resolveList, resolveEntry(host, port, address.str()).c_str());
    }
    for (const auto& [address, present] : response->ipAddress()) {
      cd->resolveList =
          curl_slist_append(cd->resolveList, resolveEntry(host, port, address.str()).c_str());
    }
  }
  if (cd->resolveList) curl_easy_setopt(easy, CURLOPT_RESOLVE, cd->resolveList);

  // Credentials go only with an authentication scheme.
  if (response->authType() == authBasic || response->authType() == authDigest) {
    curl_easy_setopt(easy, CURLOPT_HTTPAUTH,
                     response->authType() == authBasic ? CURLAUTH_BASIC : CURLAUTH_DIGEST);
    curl_easy_setopt(easy, CURLOPT_USERNAME, response->username().charPtr());
    curl_easy_setopt(easy, CURLOPT_PASSWORD, response->password().charPtr());
  }
  if (!response->sslVerifyPeer()) {
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
  }
  if (!response->pinnedPublicKey().empty()) {
    curl_easy_setopt(easy, CURLOPT_PINNEDPUBLICKEY, response->pinnedPublicKey().charPtr());
  }

  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(easy, CURLOPT_HEADER, 0L);
  // Statuses of 400 and above end the transfer before the body.
  curl_easy_setopt(easy, CURLOPT_FAILONERROR, 1L);

  // The whole transfer never gets less time than its connection.
  const uint16_t timeoutConnect = response->timeoutConnect();
  const uint16_t timeoutRequest = response->timeoutRequest();
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(timeoutConnect));
  curl_easy_setopt(
      easy, CURLOPT_TIMEOUT,
      static_cast<long>(timeoutConnect < timeoutRequest ? timeoutRequest : timeoutConnect));

  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, maxRedirects);
  protocolsLimited(easy);

  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, curlHeaderCB);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, cd);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, curlWriteCB);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, cd);
  if (response->debug()) {
    // No debug data: the callback only traces.
    curl_easy_setopt(easy, CURLOPT_DEBUGFUNCTION, curlDebugCB);
    curl_easy_setopt(easy, CURLOPT_VERBOSE, 1L);
  }

  // A client's own non-empty User-Agent goes out with the other header lines.
  thread_local const Orb::String userAgentName("User-Agent");  // looked up on every dispatch
  if (response->requestheader(userAgentName).empty()) {
    curl_easy_setopt(easy, CURLOPT_USERAGENT, defaultUserAgent);
  }

  // Only POST and PUT carry the request body. The state is overwritten by stateSendHeader
  // below at once.
  const Method method = response->method();
  if (method == POST || method == PUT) {
    stateIs(stateSendBody);
    if (!cd->requestBody.empty()) {
      // libcurl keeps the pointer: the record holds the body until the transfer is torn down.
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, cd->requestBody.charPtr());
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(cd->requestBody.size()));
    } else {
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, 0L);
    }
  }
  if (const char* custom = customRequestOf(method)) {
    RETRA_TRACE_SM(2, this, "] added custom request for " << custom);
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, custom);
  }

  doCurlBuildHttpHeader();
  if (cd->headerList) {
    RETRA_TRACE_SM(2, this, "] Adding custom request headers");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, cd->headerList);
  }
  curl_easy_setopt(easy, CURLOPT_URL, response->uri().charPtr());

  if (retraSm_ && retraSm_->isInsideCurl()) {
    // A client's reactor changed the request from inside a transfer callback, and libcurl takes
    // no handle then: it goes in once libcurl has returned, if this fetch is still the key's.
    retraSm_->whenOutOfCurl([engine = retraSm_, key = response->requestKey(), record = cd, easy] {
      const Orb::Ptr<RequestSm> sm = engine->requestSm(key);
      if (sm && sm->curlData() == record && record->curlHandle == easy) sm->curlHandleAdded();
    });
    return;
  }
  curlHandleAdded();
}

void RequestSm::curlHandleAdded() {
  const auto [cd, response] = transferInHand();
  if (curl_multi_add_handle(cd->curlMultiHandle, cd->curlHandle) == CURLM_OK) {
    RETRA_TRACE_SM(2, this, "] added easy handle " << static_cast<void*>(cd->curlHandle));
    return;
  }
  RETRA_TRACE_SM(1, this, "] failed to add easy handle to multi");
  response->lastErrorIs(errCurlAddHandle);
  doCurlShutdown();
}

void RequestSm::doCurlBuildHttpHeader() {
  const Orb::Ptr<Response> response = this->response();
  if (!response) Orb::throwRangeException("null ValidPtr");
  RETRA_TRACE_SM(9, this,
                 "] "
                     << "doCurlBuildHttpHeader"
                     << " with " << static_cast<unsigned>(response->requestheader().size())
                     << " headers");
  auto* cd = static_cast<CurlCallbackData*>(curlData_);
  RETRA_ASSERT(cd);
  // Every entry, an empty value included ("Name: ").
  for (const auto& [name, value] : response->requestheader()) {
    const std::string line = std::string(name.view()) + ": " + std::string(value.view());
    RETRA_TRACE_SM(3, this, "] request header: '" << line << "'");
    cd->headerList = curl_slist_append(cd->headerList, line.c_str());
  }
  stateIs(stateSendHeader);
}

}  // namespace Retra
