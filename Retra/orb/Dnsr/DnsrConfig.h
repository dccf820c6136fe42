#pragma once

#include <string_view>
#include <vector>

#include "Dnsr/NameServer.h"
#include "Orb/Seconds.h"

namespace Dnsr {

// How a `DnsrSm` resolves: which name servers it asks, how long it waits for them, and how
// often it looks a name up again. Every field has a default that defers to the system
// (/etc/resolv.conf); `fromEnvironment()` adds the variable DNSR_SERVERS, which replaces the
// name servers of /etc/resolv.conf.
//
// A look-up that no server answers fails with `errTimeout` after queryTimeout x queryTries for
// each server asked (10 s with one server and the C library's defaults), as the C library's
// resolver does.
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
  // The C library's defaults for resolv.conf's "options timeout:" and "attempts:", and its caps.
  static constexpr Orb::Seconds systemTimeout = 5.0;
  static constexpr unsigned systemTries = 2;
  static constexpr unsigned systemMaxTimeout = 30;
  static constexpr unsigned systemMaxTries = 5;

  // Time a query waits for one server before trying the next, in seconds; 0: the system's
  // (`withSystemLimits`). The resolver rounds it to milliseconds.
  Orb::Seconds queryTimeout = 0;
  // Rounds over the server list before a look-up times out; 0: the system's.
  unsigned queryTries = 0;
  // Shortest time between two look-ups of one name. A successful look-up is repeated when the
  // shortest TTL of its answers runs out, but never sooner than this; a failed one is retried
  // after this time. Values below `minimumRefreshFloor` (and NaN) count as that minimum.
  Orb::Seconds refreshFloor = defaultRefreshFloor;

  // The defaults with `servers` read from DNSR_SERVERS (a `NameServer::listOf` text) when that
  // is set and not blank. A malformed DNSR_SERVERS is ignored, so that the system's servers
  // serve, and traced at level 1 on the facility "Dnsr" naming the bad entry.
  [[nodiscard]] static DnsrConfig fromEnvironment();

  // This configuration with a zero `queryTimeout` or `queryTries` taken from the system:
  // "options timeout:N attempts:N" of /etc/resolv.conf, each overridden by the variable
  // RES_OPTIONS, else `systemTimeout` and `systemTries`; values from there are capped at
  // `systemMaxTimeout` and `systemMaxTries`, as the C library caps them.
  [[nodiscard]] DnsrConfig withSystemLimits() const;
  // The same from the text of a resolv.conf and the value of RES_OPTIONS.
  [[nodiscard]] DnsrConfig withSystemLimits(std::string_view resolvConf,
                                            std::string_view resOptions) const;
};

}  // namespace Dnsr
