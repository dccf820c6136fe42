// The request state machine's harvest: a finished transfer's status, error, statistics and
// timings go into the response and its counter and timer, and the easy handle leaves the multi
// handle.

#include <curl/curl.h>

#include <cstdint>

#include "Orb/Exception.h"
#include "Retra/internal/LibTrace.h"
#include "Retra/request/CurlCallbackData.h"
#include "Retra/request/RequestSm.h"

namespace Retra {

namespace {

// The highest status taken as one.
constexpr unsigned long maxStatus = 600;

// Reads one item of the finished transfer; `apply` gets it only when libcurl has it. The
// receiving variable starts at zero.
template <class T, class Apply>
void withInfo(CURL* easy, CURLINFO info, Apply apply) {
  T value{};
  if (curl_easy_getinfo(easy, info, &value) == CURLE_OK) apply(value);
}

// libcurl's text as a string, sharing the buffer of `known` when the texts are equal: the
// effective URL is mostly the request's own, and a server mostly sends one content type.
Orb::String sharedText(const char* text, const Orb::String& known) {
  if (text && known.view() == text) return known;
  return Orb::String(text);
}

// A byte count that libcurl gives as a double, truncated.
uint64_t byteCount(double value) {
  return static_cast<uint64_t>(value);
}

// The status, when it is one; a number out of range is an error instead.
void statusStored(Response& response, long status) {
  if (static_cast<unsigned long>(status) <= maxStatus) {
    response.statusCodeIs(static_cast<uint16_t>(status));
  } else {
    response.lastErrorIs(errHttpStatusCode);
  }
}

// The outcome of a transfer that got no answer at all, by libcurl's result code. Success
// without a status counts as some other failure, with libcurl's text for success.
void resultClassified(Response& response, CURLcode result) {
  switch (result) {
    case CURLE_COULDNT_CONNECT:
      response.lastErrorIs(errConnRefused);
      break;
    case CURLE_OPERATION_TIMEDOUT:
      response.lastErrorIs(errTimeout);
      break;
    default:
      response.lastErrorIs(errCurlOther);
      response.lastErrorMessageIs(Orb::String(curl_easy_strerror(result)));
      break;
  }
}

// Sizes, speeds and content lengths come as doubles through items that libcurl keeps for
// compatibility; these are the ones the statistics are defined by.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void statisticsPublished(CURL* easy, Response& response) {
  withInfo<char*>(easy, CURLINFO_EFFECTIVE_URL,
                  [&](char* url) { response.effectiveUrlIs(sharedText(url, response.uri())); });
  withInfo<char*>(easy, CURLINFO_CONTENT_TYPE, [&](char* type) {
    // One per thread: harvest runs on the engine's loop.
    thread_local Orb::String lastType;
    lastType = sharedText(type, lastType);
    response.contentTypeIs(lastType);
  });

  const Orb::Ptr<RequestTimer> timer = response.timerIs();
  withInfo<double>(easy, CURLINFO_TOTAL_TIME, [&](double t) { (void)timer->totalInc(t); });
  withInfo<double>(easy, CURLINFO_CONNECT_TIME, [&](double t) { (void)timer->connectInc(t); });
  withInfo<double>(easy, CURLINFO_APPCONNECT_TIME,
                   [&](double t) { (void)timer->sslHandshakeInc(t); });
  double preTransfer = 0.0;
  withInfo<double>(easy, CURLINFO_PRETRANSFER_TIME, [&](double t) {
    preTransfer = t;
    (void)timer->requestInc(t);
  });
  // The wait for the first byte, once there was one.
  withInfo<double>(easy, CURLINFO_STARTTRANSFER_TIME, [&](double t) {
    if (t > 0) (void)timer->responseInc(t - preTransfer);
  });

  const Orb::Ptr<RequestCounter> counter = response.counterIs();
  withInfo<long>(easy, CURLINFO_REDIRECT_COUNT,
                 [&](long n) { (void)counter->numRedirectInc(static_cast<uint32_t>(n)); });
  withInfo<long>(easy, CURLINFO_NUM_CONNECTS,
                 [&](long n) { (void)counter->numConnectInc(static_cast<uint32_t>(n)); });
  withInfo<double>(easy, CURLINFO_SIZE_DOWNLOAD,
                   [&](double n) { (void)counter->bytesDownloadInc(byteCount(n)); });
  withInfo<double>(easy, CURLINFO_SIZE_UPLOAD,
                   [&](double n) { (void)counter->bytesUploadInc(byteCount(n)); });
  withInfo<double>(easy, CURLINFO_SPEED_DOWNLOAD,
                   [&](double speed) { counter->speedDownloadIs(speed); });
  withInfo<double>(easy, CURLINFO_SPEED_UPLOAD,
                   [&](double speed) { counter->speedUploadIs(speed); });
  withInfo<long>(easy, CURLINFO_HEADER_SIZE, [&](long n) {
    (void)counter->bytesHeaderDownloadInc(static_cast<uint64_t>(static_cast<int64_t>(n)));
  });
  withInfo<long>(easy, CURLINFO_REQUEST_SIZE, [&](long n) {
    (void)counter->bytesRequestUploadInc(static_cast<uint64_t>(static_cast<int64_t>(n)));
  });

  // libcurl's -1 for an unknown length stays -1.
  withInfo<double>(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD,
                   [&](double n) { response.contentLengthDownloadIs(static_cast<long long>(n)); });
  withInfo<double>(easy, CURLINFO_CONTENT_LENGTH_UPLOAD,
                   [&](double n) { response.contentLengthUploadIs(static_cast<long long>(n)); });
}
#pragma GCC diagnostic pop

}  // namespace

void RequestSm::doCurlGetInfo() {
  const auto [cd, response] = transferInHand();
  CURL* easy = cd->curlHandle;

  long status = 0;
  const CURLcode res = curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  if (res != CURLE_OK) status = 0;
  RETRA_TRACE_SM(9, this,
                 "] curl_easy_getinfo: res=" << static_cast<int>(res) << " statusCode=" << status);
  // No path here clears an error: the engine does that before each fetch.
  if (res != CURLE_OK) {
    const char* text = curl_easy_strerror(res);
    RETRA_TRACE_SM(1, this, "] CURL error: '" << text << "'");
    response->lastErrorIs(errCurlRequest);
    response->lastErrorMessageIs(Orb::String(text));
  } else {
    statusStored(*response, status);
    if (status != 0) {
      // An answer: a failure status is the error, whatever libcurl's result code says.
      if (status > 399) response->lastErrorIs(errHttpStatusCode);
    } else {
      resultClassified(*response, cd->result);
    }
  }

  statisticsPublished(easy, *response);

  RETRA_TRACE_SM(2, this,
                 "] finishing " << response->method() << " " << response->uri()
                                << " (status: " << status << ")");
  RETRA_TRACE_SM(3, this,
                 "] removing curlHandle " << static_cast<void*>(easy) << " from multiHandle "
                                          << static_cast<void*>(cd->curlMultiHandle));
  if (curl_multi_remove_handle(cd->curlMultiHandle, easy) != CURLM_OK) {
    RETRA_TRACE_SM(1, this, "] failed to remove curlHandle " << static_cast<void*>(easy));
    response->lastErrorIs(errCurlRemoveHandle);
  }
}

}  // namespace Retra
