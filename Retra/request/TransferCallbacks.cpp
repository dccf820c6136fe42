// The libcurl callbacks of a transfer: header lines, body chunks and verbose output.

#include "Retra/request/TransferCallbacks.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Orb/Ptr.h"
#include "Orb/String.h"
#include "Retra/internal/LibTrace.h"
#include "Retra/model/Response.h"
#include "Retra/request/CurlCallbackData.h"

namespace Retra {

namespace {

// How many leading characters of a header value are skipped: the run of consecutive codes
// f, f+1, f+2, ... that are white space, f being the value's first character. A single blank
// skips one; a tab skips five (codes 9 to 13); a second blank is kept. The skip never runs past
// the value's end.
size_t leadingSkip(const char* value) {
  const int first = static_cast<signed char>(value[0]);
  size_t skip = 0;
  while (std::isspace(first + static_cast<int>(skip))) ++skip;
  const size_t length = std::strlen(value);
  return skip < length ? skip : length;
}

// Whether a client's reactor has torn the transfer down from inside one of its callbacks: the
// record has let go of its handle and its response may be gone, so the callback takes nothing
// more and libcurl stops the transfer.
bool tornDown(const CurlCallbackData& cd) {
  return cd.curlHandle == nullptr;
}

// The answer of the write callback: the chunk taken, unless the response has finished meanwhile.
size_t taken(const Response& response, size_t n) {
  return response.requestState() == stateFinished ? 0 : n;
}

}  // namespace

size_t curlHeaderCB(void* buffer, size_t size, size_t nitems, void* userdata) {
  auto* cd = static_cast<CurlCallbackData*>(userdata);
  RETRA_ASSERT(cd);
  if (tornDown(*cd)) return 0;
  // The response outlives whatever its notifications set off.
  const Orb::Ptr<Response> response(cd->response);
  if (response->requestState() == stateFinished) return 0;
  const size_t n = size * nitems;
  char* line = strndup(static_cast<const char*>(buffer), n);
  response->requestStateIs(stateRecvHeader);
  if (tornDown(*cd)) {
    std::free(line);
    return 0;
  }
  if (line) {
    // Everything before the first colon is the name, the rest of the line up to CR or LF the
    // value; later colons stay in the value.
    const char* name = std::strtok(line, ":");
    const char* value = std::strtok(nullptr, "\r\n");
    if (name && value)
      response->headerIs(Orb::String(name), Orb::String(value + leadingSkip(value)));
    std::free(line);
  }
  return n;
}

size_t curlWriteCB(void* buffer, size_t size, size_t nmemb, void* userdata) {
  auto* cd = static_cast<CurlCallbackData*>(userdata);
  RETRA_ASSERT(cd);
  if (tornDown(*cd)) return 0;
  const Orb::Ptr<Response> response(cd->response);
  const size_t n = size * nmemb;
  response->requestStateIs(stateRecvBody);
  if (tornDown(*cd)) return 0;

  const Orb::String outputPath = response->outputPath();
  if (outputPath.empty()) {
    // One new body, and so one body notification, per chunk.
    response->bodyIs(response->body() + Orb::String(static_cast<const char*>(buffer), n));
    return tornDown(*cd) ? 0 : taken(*response, n);
  }
  if (!cd->outputFile) cd->outputFile = std::fopen(outputPath.charPtr(), "wb");
  if (cd->outputFile) {
    if (n == 0) return taken(*response, n);
    if (std::fwrite(buffer, size, nmemb, cd->outputFile) == nmemb) return taken(*response, n);
  }
  // Taken before the response's notifications can disturb it.
  const int error = errno;
  const char* text = std::strerror(error);
  response->lastErrorIs(errFile);
  response->lastErrorMessageIs(Orb::String(text ? text : ""));
  return 0;
}

int curlDebugCB(CURL*, curl_infotype type, char* data, size_t size, void*) {
  switch (type) {
    case CURLINFO_TEXT:
      RETRA_TRACE(5, data);
      break;
    case CURLINFO_HEADER_IN:
      RETRA_TRACE(5, "curl_response_data=" << data);
      break;
    case CURLINFO_HEADER_OUT:
      RETRA_TRACE(5, "curl_request_hdr=" << data);
      break;
    case CURLINFO_DATA_IN:
      RETRA_TRACE(5, "curl_data_in_bytes=" << size);
      break;
    case CURLINFO_DATA_OUT:
      RETRA_TRACE(5, "curl_data_out_bytes=" << size);
      break;
    default:
      RETRA_TRACE(5, "curl debug_default=" << static_cast<int>(type));
      break;
  }
  return 0;
}

}  // namespace Retra
