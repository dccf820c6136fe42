#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "Retra/model/Response.h"

namespace RetraTool {

// A `Response` as a JSON object: one key per attribute, named and ordered as the response
// declares them, derived attributes included (`method`, `uri`, `finished`). Enumerations are
// their enumerator names; `requestKey` is {"method", "uri"}; `requestheader` and `header` are
// objects of name to value; `ipAddress` and `ip6Address` are arrays of address texts in
// ascending order; `counter` and `timer` are objects keyed by their attribute names (zeros when
// the response has none yet). The body is `body`, a string, when it is valid UTF-8, and
// `bodyBase64` otherwise.
//
//   nlohmann::ordered_json object = RetraTool::responseJson(*response);
//   object["statusCode"];   // 200
//   object["lastError"];    // "errNone"
//   std::cout << RetraTool::jsonLine(object);   // one line, newline included
[[nodiscard]] nlohmann::ordered_json responseJson(const Retra::Response& response);

// The member of `responseJson(response)` for the attribute `name` alone, as an object
// ({"statusCode": 200}); empty when the response declares no such attribute.
[[nodiscard]] nlohmann::ordered_json attributeJson(const Retra::Response& response,
                                                   std::string_view name);

// `object` on one line with a newline; text that is not valid UTF-8 (a header value, say) is
// written with U+FFFD in place of the bad bytes rather than failing.
[[nodiscard]] std::string jsonLine(const nlohmann::ordered_json& object);

// Whether `bytes` is well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
[[nodiscard]] bool isUtf8(std::string_view bytes);

// Standard base64 with padding (RFC 4648).
[[nodiscard]] std::string base64(std::string_view bytes);

}  // namespace RetraTool
