#pragma once

#include <ares.h>

#include <limits>
#include <vector>

#include "Dnsr/ResolutionError.h"
#include "Dnsr/ResolutionRecord.h"
#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Orb/Seconds.h"

namespace Dnsr::internal {

// What one look-up of a host found, per address family: the c-ares status of the family's query
// (ARES_SUCCESS only with addresses) and the addresses with the shortest TTL among them.
struct LookupAnswer {
  static constexpr Orb::Seconds noTtl = std::numeric_limits<Orb::Seconds>::infinity();

  int ipStatus = ARES_ENODATA;
  int ip6Status = ARES_ENODATA;
  std::vector<Ipkit::IpAddr> ip;
  std::vector<Ipkit::Ip6Addr> ip6;
  Orb::Seconds ttl = noTtl;  // shortest TTL of the addresses; 0 for the hosts file
  Orb::Seconds started = 0;  // when the look-up started (`System::currentTime()`)
  double duration = 0;       // seconds from the start to the answer, on a monotonic clock

  // Whether either family gave addresses.
  [[nodiscard]] bool succeeded() const noexcept { return !ip.empty() || !ip6.empty(); }
  // Why the look-up failed; `errNone` when it succeeded. When every family's answer said "no
  // such name" or "no data", that is the error; otherwise the first other failure (A first),
  // such as a time-out, wins.
  [[nodiscard]] ResolutionError error() const noexcept;
};

// Writes `answer`, found at time `now`, into `record`: first the look-up's duration and start
// time, whatever the outcome, then the outcome. On success each family whose query was
// answered (with addresses or a definite "none") gets exactly its new addresses, a family whose
// query failed keeps its old ones; then `lastRefreshError` and `lastError` become `errNone` and,
// last, `valid` true. A failure of a valid record (a refresh) sets `lastRefreshErrorTime` to `now`
// then `lastRefreshError`; a failure of a record not yet valid sets `lastError`. Nothing else
// changes on failure.
void answerApplied(ResolutionRecord& record, const LookupAnswer& answer, Orb::Seconds now);

}  // namespace Dnsr::internal
