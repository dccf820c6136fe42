#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "retra-fetch/FetchReport.h"

namespace RetraFetch {

// The texts retra-fetch writes about its fetches. Each ends with a newline except the progress
// line, which the caller redraws in place.

// One line per fetch: method, URL, outcome (the status, and the error name with libcurl's
// message when the fetch failed), size and whole time of the fetch. From the second fetch of a
// URL on, the fetch number follows.
//
//   GET http://127.0.0.1:8080/a -> 200, 1024 bytes, 0.004 s
//   GET http://127.0.0.1:8080/missing -> 404 errHttpStatusCode, 0 bytes, 0.002 s
//   GET https://h/ -> errCurlOther: SSL public key does not match pinned public key, 0 bytes, 0.1 s
//   GET http://127.0.0.1:8080/a -> 200, 1024 bytes, 0.003 s [fetch 2]
//   GET http://127.0.0.1:8080/big -> 200 incomplete, 30461440 of 67108864 bytes, 60.001 s
//
// "incomplete" marks a fetch without error whose body is shorter than announced, or whose last
// status is an interim one (1xx): the library reports no error once a status has arrived.
[[nodiscard]] std::string summaryLine(const FetchReport& report);

// The phase times and counters of the fetch, one row per attribute of the response's timer and
// counter, with the fetch's share and the total over all fetches of its URL.
[[nodiscard]] std::string statsTable(const FetchReport& report);

// The received headers for -i: "HTTP <status>", then "Name: value" lines sorted by name, then an
// empty line.
[[nodiscard]] std::string headerBlock(const FetchReport& report);

// "3/5 done, 12.4 MiB received"
[[nodiscard]] std::string progressLine(size_t done, size_t total, uint64_t bytes);

// Bytes in the largest binary unit that keeps a number of at least 1: "512 B", "12.4 MiB".
[[nodiscard]] std::string sizeText(uint64_t bytes);

}  // namespace RetraFetch
