// Transfer completion: after each call into libcurl, every finished transfer is handed to its
// request state machine for harvest and teardown, and its callback record is released.

#include <curl/curl.h>

#include "Retra/engine/RetraSm.h"
#include "Retra/internal/LibTrace.h"
#include "Retra/request/CurlCallbackData.h"
#include "Retra/request/RequestSm.h"

namespace Retra {

namespace {

// The key's state machine, which a transfer libcurl reports finished always has.
Orb::Ptr<RequestSm> machineOf(const RetraSm& engine, const RequestKey& key) {
  Orb::Ptr<RequestSm> sm = engine.requestSm(key);
  RETRA_ASSERT(sm);
  return sm;
}

}  // namespace

void RetraSm::doCurlReadInfo() {
  int remaining = 0;
  // The multi handle is read afresh each time: a client reacting to a finished fetch may have
  // shut the engine down.
  while (CURLMsg* message =
             curlMultiHandle_
                 ? curl_multi_info_read(static_cast<CURLM*>(curlMultiHandle_), &remaining)
                 : nullptr) {
    RETRA_TRACE(9, remaining << " further curl response messages");
    if (message->msg != CURLMSG_DONE || !message->easy_handle) continue;
    // The message is libcurl's until the next call into it: keep what it says.
    const CURLcode result = message->data.result;
    const RequestKey key = curlHandle(static_cast<void*>(message->easy_handle));

    auto* cd = static_cast<CurlCallbackData*>(machineOf(*this, key)->curlData());
    RETRA_ASSERT(cd);
    // A transfer that ends without any header still passes stateRecvHeader. A response the
    // client has deleted meanwhile lives on in its state machine only.
    if (const Orb::Ptr<Response> response = retraResponse_->directory()->response(key)) {
      if (response->requestState() < stateRecvHeader) response->requestStateIs(stateRecvHeader);
    }
    cd->result = result;

    // Each step asks for the machine afresh and lets it go again, so that once teardown has
    // finished the response and the machine has been dropped, the machine is gone before its
    // record is released.
    machineOf(*this, key)->doCurlGetInfo();
    machineOf(*this, key)->doCurlShutdown();
    // The record goes now, unless a machine still points at it (the client deleted the response,
    // so nothing dropped the machine): that machine tears down once more when it goes and then
    // hands the record back itself. The entries in retraCurl and curlHandle stay until the
    // request is next set up.
    const Orb::Ptr<RequestSm> survivor = requestSm(key);
    if (!survivor || survivor->curlData() != cd) curlDataFree(cd);
  }
}

}  // namespace Retra
