#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "Retra/model/Response.h"
#include "Retra/remote/WireMessage.h"

namespace RetraCtl {

// The texts retra-ctl prints. Each ends with a newline.

// One line of `list`: method, URI, state, status, last error and the time of the last update
// (local time; "-" before the first).
//
//   GET http://127.0.0.1:8080/a  stateFinished  200  errNone  2026-11-24 11:20:03
[[nodiscard]] std::string listingLine(const Retra::Wire::ListedRequest& listed);

// The same as a JSON object: {"method", "uri", "state", "statusCode", "lastError",
// "lastUpdateTime"} (seconds since the epoch).
[[nodiscard]] nlohmann::ordered_json listingJson(const Retra::Wire::ListedRequest& listed);

// The whole response for reading: "name: value" per attribute in declaration order, the members
// of headers, counter and timer indented under their name, the body last after an empty line.
[[nodiscard]] std::string responseText(const Retra::Response& response);

// A line per finished fetch: method, URI, status, the error with its message when the fetch
// failed, the body's size (or the file it went to) and the fetch number.
//
//   GET http://127.0.0.1:8080/a -> 200, 1024 bytes [fetch 3]
//   GET http://127.0.0.1:8080/missing -> 404 errHttpStatusCode: ..., 0 bytes [fetch 1]
[[nodiscard]] std::string finishLine(const Retra::Response& response);

}  // namespace RetraCtl
