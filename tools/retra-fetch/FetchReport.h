#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Retra/model/Enumerations.h"
#include "Retra/model/RequestCounter.h"
#include "Retra/model/RequestTimer.h"
#include "Retra/model/Response.h"

namespace RetraFetch {

#define RETRA_FETCH_VALUE_MEMBER(kind, name, Type, ...) Type name = 0;

// The counter and timer values of a response at one moment. A response's counters and timers
// add up over every fetch of its request, so one fetch's share is the difference between the
// values after it and the values before it.
struct StatsSnapshot {
  struct Counter {
    RETRA_REQUEST_COUNTER_ATTRIBUTES(RETRA_FETCH_VALUE_MEMBER)
  };
  struct Timer {
    RETRA_REQUEST_TIMER_ATTRIBUTES(RETRA_FETCH_VALUE_MEMBER)
  };
  Counter counter;
  Timer timer;
};

#undef RETRA_FETCH_VALUE_MEMBER

// The values of `response` now; zeros where it has no counter or timer yet.
[[nodiscard]] StatsSnapshot snapshotOf(const Retra::Response& response);

// One line of the statistics table: an attribute of the counter or the timer with its value
// for one fetch and over all fetches. Speeds are the last fetch's and are not summed.
struct StatRow {
  std::string name;
  double fetch = 0;
  double all = 0;
  bool summed = true;
  bool seconds = false;
};

// Everything retra-fetch reports about one finished fetch, copied out of the response at the
// moment it finished (a refresh may reset the response before the report is printed).
struct FetchReport {
  size_t index = 0;    // position of the URL on the command line
  unsigned fetch = 1;  // 1 for a URL's first fetch, 2 for the next, ...
  Retra::Method method = Retra::GET;
  std::string uri;
  uint16_t statusCode = 0;
  Retra::Error error = Retra::errNone;
  std::string errorMessage;
  uint64_t bytes = 0;          // body bytes this fetch received
  int64_t expectedBytes = -1;  // the announced length (Content-Length), -1 when unknown
  double seconds = 0;          // whole time of this fetch
  std::string body;            // empty when the body went to a file
  std::string outputPath;
  std::vector<std::pair<std::string, std::string>> headers;  // received, sorted by name
  double resolveSeconds = 0;    // the resolver's latest look-up of the host; 0 for an address
  std::vector<StatRow> timers;  // "resolve", then the timer's phases
  std::vector<StatRow> counters;
  std::string json;  // the response as one line of JSON, when asked for
};

// The report of the fetch that just finished on `response`; `before` holds the values the
// previous fetch of the same request left (all zero for the first). `resolveSeconds` is how long
// the resolver's latest look-up of the response's host took (its record's `lastLookupDuration`):
// the library's own name resolution, which the timer's `hostLookup` does not see.
[[nodiscard]] FetchReport reportOf(const Retra::Response& response, const StatsSnapshot& before,
                                   double resolveSeconds = 0);

}  // namespace RetraFetch
