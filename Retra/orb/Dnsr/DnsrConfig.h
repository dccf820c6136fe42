#pragma once

#include <vector>

#include "Dnsr/NameServer.h"
#include "Orb/Seconds.h"

namespace Dnsr {

// How a `DnsrSm` resolves: which name servers it asks, how long it waits for them, and how
// often it looks a name up again. Every field has a default that defers to the system
// (/etc/resolv.conf); `fromEnvironment()` adds the variable DNSR_SERVERS, which replaces the
// name servers of /etc/resolv.conf.
//
//   Dnsr::DnsrConfig config = Dnsr::DnsrConfig::fromEnvironment();
//   config.servers = Dnsr::NameServer::listOf("127.0.0.1:5353");
//   config.queryTimeout = 0.2;
//   config.queryTries = 1;
//   config.refreshFloor = 0.5;
//   auto sm = Dnsr::DnsrSm::DnsrSmIs(records, requests, config);
struct DnsrConfig {
  static constexpr Orb::Seconds defaultRefreshFloor = 5.0;
  // The floor is never below this, so that answers with a zero TTL cannot make the service
  // look a name up on every loop turn.
  static constexpr Orb::Seconds minimumRefreshFloor = 0.01;

  // The servers to ask, in order; empty: those of /etc/resolv.conf.
  std::vector<NameServer> servers;
  // Time a query waits for one server before trying the next, in seconds; 0: the system's
  // (resolv.conf "options timeout:", else 5 s). The resolver rounds it to milliseconds.
  Orb::Seconds queryTimeout = 0;
  // Rounds over the server list before a query times out; 0: the system's ("attempts:", else 4).
  unsigned queryTries = 0;
  // Shortest time between two look-ups of one name. A successful look-up is repeated when the
  // shortest TTL of its answers runs out, but never sooner than this; a failed one is retried
  // after this time. Values below `minimumRefreshFloor` (and NaN) count as that minimum.
  Orb::Seconds refreshFloor = defaultRefreshFloor;

  // The defaults with `servers` read from DNSR_SERVERS (a `NameServer::listOf` text) when that
  // is set and not blank. A malformed DNSR_SERVERS raises the range exception.
  [[nodiscard]] static DnsrConfig fromEnvironment();
};

}  // namespace Dnsr
