// The header callback fed arbitrary lines, the way libcurl calls it during a transfer: a
// transfer record made as the engine makes one, pointing at a real response. Each line is taken
// whole and moves the response to receiving headers; the headers it stores are exactly those of
// a model of the line rules, written here independently of the callback:
//
// - the callback sees the line up to its first NUL;
// - the name is the first run of characters that are no colon (leading colons are passed
//   over); the value is the first run of characters that are no line end after the colon that
//   ends the name (line ends right after that colon are passed over, later colons belong to the
//   value); without both there is nothing to store;
// - leading value characters are skipped while their codes, counted up from the first
//   character's, are white space (one blank skips one, a tab five), never past the value's end;
// - a later line of the same name replaces the value.
//
// Once the response is finished the callback refuses every line and changes nothing.

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Orb/Ptr.h"
#include "Orb/String.h"
#include "Retra/model/Enumerations.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/Response.h"
#include "Retra/request/CurlCallbackData.h"
#include "Retra/request/TransferCallbacks.h"
#include "fuzz/FuzzCheck.h"

namespace {

using Headers = std::map<std::string, std::string>;

void modelLine(std::string_view line, Headers& headers) {
  line = line.substr(0, line.find('\0'));
  const size_t nameBegin = line.find_first_not_of(':');
  if (nameBegin == std::string_view::npos) return;
  const size_t nameEnd = std::min(line.find(':', nameBegin), line.size());
  if (nameEnd == line.size()) return;  // no colon after the name: no value
  const size_t valueBegin = line.find_first_not_of("\r\n", nameEnd + 1);
  if (valueBegin == std::string_view::npos) return;
  const size_t valueEnd = std::min(line.find_first_of("\r\n", valueBegin), line.size());
  std::string_view value = line.substr(valueBegin, valueEnd - valueBegin);
  const int first = static_cast<signed char>(value.front());
  size_t skip = 0;
  while (skip < value.size() && std::isspace(first + int(skip))) ++skip;
  value.remove_prefix(skip);
  headers[std::string(line.substr(nameBegin, nameEnd - nameBegin))] = std::string(value);
}

void checkHeaders(const Retra::Response& response, const Headers& expected) {
  FUZZ_CHECK(response.header().size() == expected.size());
  for (const auto& [name, value] : expected) {
    FUZZ_CHECK(response.header().contains(name) && response.header(name).view() == value);
  }
}

// Calls the callback with a buffer holding exactly the line, no terminator after it. libcurl
// passes size 1 and the byte count; the callback must also handle the transpose.
size_t deliver(std::string_view line, bool asItems, Retra::CurlCallbackData* record) {
  std::vector<char> buffer(line.begin(), line.end());
  return asItems ? Retra::curlHeaderCB(buffer.data(), 1, line.size(), record)
                 : Retra::curlHeaderCB(buffer.data(), line.size(), 1, record);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const Orb::Ptr<Retra::Response> response =
      Orb::allocate<Retra::Response>(Retra::RequestKey(Retra::GET, "http://127.0.0.1/"));
  static CURL* const transfer = curl_easy_init();  // a transfer under way, never torn down
  Retra::CurlCallbackData record;
  record.response = response.ptr();
  record.curlHandle = transfer;

  // One call per line, each line with its line feed, as libcurl splits a header block.
  Headers expected;
  size_t at = 0;
  bool asItems = true;
  while (at < input.size()) {
    const size_t feed = input.find('\n', at);
    const size_t end = feed == std::string_view::npos ? input.size() : feed + 1;
    const std::string_view line = input.substr(at, end - at);
    FUZZ_CHECK(deliver(line, asItems, &record) == line.size());
    FUZZ_CHECK(response->requestState() == Retra::stateRecvHeader);
    modelLine(line, expected);
    checkHeaders(*response, expected);
    asItems = !asItems;
    at = end;
  }

  response->requestStateIs(Retra::stateFinished);
  if (!input.empty()) FUZZ_CHECK(deliver(input, true, &record) == 0);
  FUZZ_CHECK(response->requestState() == Retra::stateFinished);
  checkHeaders(*response, expected);
  return 0;
}
