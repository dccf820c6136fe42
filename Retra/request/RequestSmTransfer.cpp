// The request state machine's transfer after harvest: refresh scheduling and teardown.

#include <curl/curl.h>

#include <cstdio>
#include <utility>

#include "Retra/engine/RetraSm.h"
#include "Retra/internal/LibTrace.h"
#include "Retra/request/CurlCallbackData.h"
#include "Retra/request/RequestSm.h"

namespace Retra {

RequestSm::TransferInHand RequestSm::transferInHand() const {
  auto* cd = static_cast<CurlCallbackData*>(curlData_);
  RETRA_ASSERT(cd);
  RETRA_ASSERT(cd->curlMultiHandle);
  RETRA_ASSERT(cd->curlHandle);
  Orb::Ptr<Response> response = this->response();
  if (!response) Orb::throwRangeException("null ValidPtr");
  return {cd, std::move(response)};
}

void RequestSm::doScheduleRefresh() {
  const Orb::Ptr<Response> response = this->response();
  if (!response || !retraSm_) return;
  const double deadline =
      response->lastUpdateTime() + static_cast<double>(response->timeoutRefresh());
  retraSm_->nudgeRefreshClock(deadline);
}

void RequestSm::doCurlShutdown() {
  auto* cd = static_cast<CurlCallbackData*>(curlData_);
  RETRA_ASSERT(cd);
  const Orb::Ptr<Response> response = this->response();
  // A transfer still running (its machine goes while it runs) leaves the multi handle first:
  // libcurl's cleanup of an easy handle inside a multi handle would keep its half-used
  // connection for the next transfer to the same host. A handle already removed, or never
  // added, is left as it is.
  CURLM* multi = cd->curlHandle && cd->curlMultiHandle && retraSm_ &&
                         retraSm_->curlMultiHandle() == cd->curlMultiHandle
                     ? cd->curlMultiHandle
                     : nullptr;
  if (cd->headerList) RETRA_TRACE_SM(9, this, "] freeing curl request header list");
  if (cd->resolveList) RETRA_TRACE_SM(9, this, "] freeing curl resolve option list");
  if (cd->curlHandle) {
    RETRA_TRACE_SM(9, this,
                   "] cleaning up curl easy handle " << static_cast<void*>(cd->curlHandle));
  }
  // The record lets go at once (its callbacks then take nothing more); libcurl's objects go
  // once libcurl has returned, when a client's reactor tore the transfer down from inside it.
  auto release = [multi, easy = std::exchange(cd->curlHandle, nullptr),
                  headers = std::exchange(cd->headerList, nullptr),
                  resolves = std::exchange(cd->resolveList, nullptr)] {
    if (multi) curl_multi_remove_handle(multi, easy);
    curl_slist_free_all(headers);
    curl_slist_free_all(resolves);
    curl_easy_cleanup(easy);
  };
  if (retraSm_) {
    retraSm_->whenOutOfCurl(std::move(release));
  } else {
    release();
  }
  if (cd->outputFile) {
    RETRA_TRACE_SM(
        9, this, "] closing output file: " << (response ? response->outputPath() : Orb::String()));
    std::fclose(cd->outputFile);
    cd->outputFile = nullptr;
  }
  if (!response) return;
  (void)response->counterIs()->numFinishInc(1);
  response->requestStateIs(stateFinished);
}

}  // namespace Retra
