#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Dnsr/ResolutionRecordDir.h"
#include "Orb/Ptr.h"
#include "Retra/model/Enumerations.h"
#include "Retra/model/Response.h"

namespace RetraMetrics {

// What one response's last finished fetch looked like, and what its fetches added up to, kept
// by observing the response from the moment it appears.
//
// The response's `timer` and `counter` accumulate over every fetch, and a new fetch empties the
// response's status and error (`Response::doReset`): so when a fetch finishes (`requestState`
// becomes stateFinished) the record takes the outcome as it stands and the difference of the
// timings and redirects to the previous finish, and keeps them until the next finish. The
// timestamps keep their last non-zero value for the same reason.
//
// A fetch succeeded when it finished with `errNone` and a status from 1 to 399 (a redirect that
// was not followed counts as an answer; a status of 400 or more does not).
//
// The phases, in libcurl's terms: connect is the connect time; tls the handshake after it (0
// without TLS); processing from the request sent to the first response byte; transfer from the
// first byte to the end; resolve the host record's latest look-up when it started after this
// fetch did (0 when the fetch found the addresses known, and for address literals).
//
// A record attached to a response that has already finished takes that finish as its first
// fetch, with the timings summed so far as that fetch's share.
//
//   auto record = Orb::allocate<FetchRecord>(uid, root->dnsrRecord());
//   record->notifierIs(response);
//   if (const auto& last = record->lastFetch()) use(last->statusCode);
class FetchRecord : public Retra::Response::NotifieeConst {
 public:
  struct LastFetch {
    bool success = false;
    uint16_t statusCode = 0;
    Retra::Error error = Retra::errNone;
    double resolve = 0, connect = 0, tls = 0, processing = 0, transfer = 0;
    double duration = 0;  // the whole fetch, look-up included
    long long contentLength = -1;
    uint32_t redirects = 0;
    int ipProtocol = 0;  // of the address literal, or of the addresses tried first; 0: none
  };

  FetchRecord(uint32_t uid, Orb::Ptr<const Dnsr::ResolutionRecordDir> resolverRecords);

  // uid, method and uri as label pairs, escaped for the exposition formats.
  [[nodiscard]] const std::string& labels() const noexcept { return labels_; }
  [[nodiscard]] const std::optional<LastFetch>& lastFetch() const noexcept { return lastFetch_; }
  [[nodiscard]] uint64_t fetches() const noexcept { return fetches_; }
  // Finished fetches per error, errNone left out, in the order the errors first occurred.
  [[nodiscard]] const std::vector<std::pair<Retra::Error, uint64_t>>& errors() const noexcept {
    return errors_;
  }
  [[nodiscard]] double lastUpdateTime() const noexcept { return lastUpdateTime_; }
  [[nodiscard]] double lastChangeTime() const noexcept { return lastChangeTime_; }

  void onRequestState() override;
  void onLastUpdateTime() override;
  void onLastChangeTime() override;

 protected:
  void onNotifierConnected() override;

 private:
  struct Totals {
    double connect = 0, sslHandshake = 0, request = 0, response = 0, total = 0;
    uint32_t redirects = 0;
  };

  [[nodiscard]] Totals totalsNow() const;
  [[nodiscard]] static int ipProtocolOf(const Retra::Response& response);
  [[nodiscard]] double resolveSeconds(const Retra::Response& response) const;
  void fetchFinished();

  uint32_t uid_;
  Orb::Ptr<const Dnsr::ResolutionRecordDir> resolverRecords_;
  std::string labels_;
  std::optional<LastFetch> lastFetch_;
  uint64_t fetches_ = 0;
  std::vector<std::pair<Retra::Error, uint64_t>> errors_;
  double lastUpdateTime_ = 0;
  double lastChangeTime_ = 0;
  Totals previous_;
  bool fetching_ = false;
  double fetchStart_ = 0;
};

}  // namespace RetraMetrics
