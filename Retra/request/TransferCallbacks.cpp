// The libcurl callbacks of a transfer: header lines, body chunks and verbose output.

#include "Retra/request/TransferCallbacks.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Orb/Ptr.h"
#include "Orb/String.h"
#include "Retra/internal/LibTrace.h"
#include "Retra/model/Response.h"
#include "Retra/request/CurlCallbackData.h"
#include "Retra/request/HeaderFieldCache.h"

namespace Retra {

namespace {

// How many leading characters of a header value are skipped: the run of consecutive codes
// f, f+1, f+2, ... that are white space, f being the value's first character. A single blank
// skips one; a tab skips five (codes 9 to 13); a second blank is kept. The skip never runs past
// the value's end.
size_t leadingSkip(std::string_view value) {
  const int first = static_cast<signed char>(value[0]);
  size_t skip = 0;
  while (std::isspace(first + static_cast<int>(skip))) ++skip;
  return skip < value.size() ? skip : value.size();
}

// A header line split as the text up to its first NUL reads: the name is the first run of
// characters other than a colon (leading colons skipped), the value the first run of characters
// other than CR and LF after the colon that ends the name. Both must be non-empty; later colons
// stay in the value. Parsed in place: no copy of the line.
struct HeaderField {
  std::string_view name;
  std::string_view value;
};
bool isLineEnd(char c) {
  return c == '\r' || c == '\n';
}
// Plain loops: the library's find_first_of / find_first_not_of call memchr once per character.
bool headerFieldOf(std::string_view line, HeaderField& field) {
  const char* p = line.data();
  const char* const end = p + line.size();
  while (p != end && *p == ':') ++p;
  const char* const name = p;
  while (p != end && *p != ':') ++p;
  if (p == name || p == end) return false;
  field.name = std::string_view(name, size_t(p - name));
  ++p;
  while (p != end && isLineEnd(*p)) ++p;
  const char* const value = p;
  while (p != end && !isLineEnd(*p)) ++p;
  if (p == value) return false;
  field.value = std::string_view(value, size_t(p - value));
  return true;
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
  const char* text = static_cast<const char*>(buffer);
  const std::string_view line(text, strnlen(text, n));
  response->requestStateIs(stateRecvHeader);
  if (tornDown(*cd)) return 0;
  HeaderField field;
  if (headerFieldOf(line, field)) {
    // One cache per thread: the callbacks of one engine all run on its loop's thread.
    thread_local HeaderFieldCache cache;
    const std::string_view value = field.value.substr(leadingSkip(field.value));
    auto [name, shared] = cache.field(field.name, value);
    response->headerIs(name, shared);
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
