#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "Dnsr/DnsrConfig.h"
#include "Dnsr/ResolutionRecordDir.h"
#include "Dnsr/ResolutionRequestDir.h"
#include "Orb/HashMap.h"
#include "Orb/Ptr.h"
#include "Orb/PtrInterface.h"
#include "Orb/Seconds.h"
#include "Orb/String.h"

namespace Dnsr {

namespace internal {
class AresChannel;
class HostLookup;
}  // namespace internal

// The resolver service: watches a `ResolutionRequestDir` and keeps one `ResolutionRecord` per
// requested host in a `ResolutionRecordDir`, resolved with c-ares on the activity loop (no
// threads, no blocking call: c-ares's sockets are `Orb::FileDescriptor` watches and its
// time-outs a `Clock` observer).
//
// For each host, requests present when the service is built included:
//   - An IPv4 or IPv6 literal ("192.0.2.1", "2001:db8::1", "[2001:db8::1]") resolves to itself
//     at once: its record appears valid with that one address, and no query is sent.
//   - Otherwise the record appears at once, not valid, and the look-up starts: /etc/hosts
//     first, then an A and an AAAA query to the name servers (those of /etc/resolv.conf, of
//     DNSR_SERVERS, or of the configuration given). On success the addresses are written,
//     then `lastError` becomes `errNone`, then `valid` true; a host with only A or only AAAA
//     answers is valid with that family alone. On failure `lastError` takes the reason (a
//     `ResolutionError`) and `valid` stays false.
//   - A look-up that has not ended after its deadline, queryTimeout x queryTries per name
//     server (`lookupDeadline()`), is given up and fails with `errTimeout`; families answered
//     by then count.
//   - The host is looked up again when the shortest TTL of its answers has run out, but not
//     sooner than the configured refresh floor (a failed look-up is retried after the floor).
//     A refresh adds and removes addresses as the answers change, leaving `valid` and
//     `lastError` alone. A refresh that fails keeps the addresses, `valid` true and `lastError`
//     `errNone`, and sets `lastRefreshErrorTime` then `lastRefreshError`; the next successful
//     one sets `lastRefreshError` back to `errNone`. So an outage of the name servers changes
//     nothing that users of valid records watch.
//   - A SERVFAIL or REFUSED answer ends the query when there is a single name server, which
//     reports `errServerFailure` or `errRefused`; with several, c-ares asks the next one, and
//     when none answers usefully the error reads `errServerFailure`.
// Deleting a host's request (or setting its count to 0) cancels its look-up (a late answer is
// ignored) and removes its record. Answers are written on the loop turn after c-ares delivers them,
// from the service's own clock observer, never from inside c-ares.
//
// Ownership: the service holds both directories; records are owned by their directory.
// Destroying the service cancels every look-up and releases every socket watch and clock
// observer; the records it published stay in their directory.
//
//   auto requests = Orb::allocate<Dnsr::ResolutionRequestDir>("dnsrRequest");
//   auto records = Orb::allocate<Dnsr::ResolutionRecordDir>("dnsrRecord");
//   auto sm = Dnsr::DnsrSm::DnsrSmIs(records, requests);
//   requests->requestIs("www.example.org", 1);
//   Orb::activityManager()->runUntil(
//       [&] { return records->record("www.example.org")->valid(); }, 10.0);
class DnsrSm : public Orb::PtrInterface {
 public:
  // A service over the two directories, configured from the environment
  // (`DnsrConfig::fromEnvironment()`), with its notification switched on.
  [[nodiscard]] static Orb::Ptr<DnsrSm> DnsrSmIs(
      const Orb::Ptr<ResolutionRecordDir>& records,
      const Orb::Ptr<const ResolutionRequestDir>& requests);
  // The same with an explicit configuration (name servers, time-outs, refresh floor); time-outs
  // left at 0 come from the system (`DnsrConfig::withSystemLimits()`). A channel c-ares cannot
  // create raises the range exception; so do null directories.
  [[nodiscard]] static Orb::Ptr<DnsrSm> DnsrSmIs(
      const Orb::Ptr<ResolutionRecordDir>& records,
      const Orb::Ptr<const ResolutionRequestDir>& requests, const DnsrConfig& config);

  DnsrSm(const DnsrSm&) = delete;
  DnsrSm& operator=(const DnsrSm&) = delete;

  [[nodiscard]] const Orb::Ptr<ResolutionRecordDir>& records() const noexcept { return records_; }
  [[nodiscard]] const Orb::Ptr<const ResolutionRequestDir>& requests() const noexcept {
    return requests_;
  }
  // The configuration in force, with the system's time-outs filled in.
  [[nodiscard]] const DnsrConfig& config() const noexcept { return config_; }
  // Longest a look-up runs before it fails with `errTimeout`: queryTimeout x queryTries for each
  // name server. (c-ares alone would double the time-out each round.)
  [[nodiscard]] Orb::Seconds lookupDeadline() const noexcept { return lookupDeadline_; }

  // Shortest time between two look-ups of one host; takes effect from each host's next
  // look-up.
  [[nodiscard]] Orb::Seconds refreshFloor() const noexcept { return config_.refreshFloor; }
  void refreshFloorIs(Orb::Seconds floor);

  // On: the service follows its request directory (catching up with changes made while it was
  // off), and c-ares's sockets and time-outs are served. Off: all of that pauses; look-ups in
  // flight resume when it is switched on again. A call that does not change it does nothing.
  [[nodiscard]] bool hasNotificationActive() const noexcept { return active_; }
  void hasNotificationActiveIs(bool active);

  // Look-ups whose queries are in flight.
  [[nodiscard]] size_t lookupsRunning() const noexcept;
  // c-ares sockets open and watched on the loop.
  [[nodiscard]] size_t socketWatches() const noexcept;

 protected:
  ~DnsrSm() override;

 private:
  class RequestReactor;
  class WorkTimer;
  class LookupListener;

  // A requested host: its record, and its look-up while one is in flight or awaiting delivery.
  struct Host {
    Orb::Ptr<ResolutionRecord> record;
    Orb::Ptr<internal::HostLookup> lookup;
    Orb::Seconds nextLookup;  // when to look the host up again; +infinity: not planned
    Orb::Seconds deadline;    // when the look-up in flight is given up
  };

  DnsrSm(const Orb::Ptr<ResolutionRecordDir>& records,
         const Orb::Ptr<const ResolutionRequestDir>& requests, const DnsrConfig& config);

  // Reactions.
  void handleRequest(const Orb::String& host);
  void handleAllRequests();
  void handleWork();
  void lookupDone(internal::HostLookup* lookup);

  // Steps.
  void hostIs(const Orb::String& host);
  void hostDel(const Orb::String& host);
  void lookupStarted(const Orb::String& host, bool refresh);
  void overdueLookupsExpired();
  void answersDelivered();
  void refreshesStarted();
  void workScheduled();
  void idleChannelCancelled();

  Orb::Ptr<ResolutionRecordDir> records_;
  Orb::Ptr<const ResolutionRequestDir> requests_;
  DnsrConfig config_;
  std::unique_ptr<internal::AresChannel> channel_;
  Orb::Seconds lookupDeadline_ = 0;
  std::unique_ptr<LookupListener> listener_;
  Orb::Ptr<RequestReactor> requestReactor_;
  Orb::Ptr<WorkTimer> workTimer_;
  Orb::HashMap<Orb::String, Host> hosts_;
  std::vector<Orb::Ptr<internal::HostLookup>> finished_;  // answers waiting to be written
  bool active_ = false;
};

}  // namespace Dnsr
