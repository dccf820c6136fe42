// Host resolution: the resolver's records release, or fail, the responses waiting for a host.

#include <vector>

#include "Retra/engine/RetraSm.h"
#include "Retra/internal/LibTrace.h"
#include "Retra/request/RequestSm.h"

namespace Retra {

// ---- The record directory

void RetraSm::OrbDnsrRecord::onRecord(const Orb::Name& name) {
  if (isTearingDown() || !engine_ || !directory_) return;
  if (Orb::Ptr<const Dnsr::ResolutionRecord> record = directory_->record(name)) {
    (void)engine_->dnsrRecordReactorIs(record);
  } else {
    engine_->dnsrRecordReactorDel(name);
  }
}

void RetraSm::OrbDnsrRecord::onRecordImmediate() {
  if (isTearingDown() || !engine_ || !directory_) return;
  RetraSm* engine = engine_;
  std::vector<Orb::Ptr<const Dnsr::ResolutionRecord>> records;
  for (const auto& [name, record] : directory_->records()) records.emplace_back(record);
  for (const auto& record : records) (void)engine->dnsrRecordReactorIs(record);
  std::vector<Orb::Name> gone;
  for (const auto& [name, reactor] : engine->dnsrRecordReactor()) {
    if (!directory_->record(name)) gone.push_back(name);
  }
  for (const Orb::Name& name : gone) engine->dnsrRecordReactorDel(name);
}

// ---- One record

void RetraSm::OrbDnsrRecordReactor::onValid() {
  if (isTearingDown() || !engine_ || !record_) return;
  handleRecord(record_->hostname());
}

void RetraSm::OrbDnsrRecordReactor::onLastError() {
  if (isTearingDown() || !engine_ || !record_) return;
  handleRecord(record_->hostname());
}

void RetraSm::OrbDnsrRecordReactor::handleRecord(const Orb::String& host) {
  RetraSm* engine = engine_;
  if (!engine || !record_) return;
  // A reaction to the responses' changes below may drop this reactor.
  const Orb::Ptr<OrbDnsrRecordReactor> self(this);
  const Orb::Ptr<const Dnsr::ResolutionRecord> record = record_;
  RETRA_TRACE(2, "DNS response for host '" << host << "'");

  bool resolved = record->valid();
  Error error = errNone;
  if (record->lastError() != 0) {
    if (record->valid()) {
      RETRA_TRACE(9, "DNS record valid with lastError. Ignoring lastError.");
    } else {
      error = errDnsLookup;
    }
    resolved = true;
  }

  std::vector<Orb::Ptr<Response>> responses;
  for (const auto& [key, response] : engine->retraResponse()->directory()->response()) {
    responses.push_back(response);
  }
  for (const Orb::Ptr<Response>& response : responses) {
    const Orb::Ptr<RequestSm> sm = engine->requestSm(response->requestKey());
    if (response->host() != host) continue;
    engine->hostResolutionIs(*response, *record);
    RETRA_TRACE_SM(9, sm, "] resolved: " << response->resolved() << " -> " << resolved);
    response->resolvedIs(resolved);
    RETRA_TRACE_SM(9, sm, "] lastError: " << response->lastError() << " -> " << error);
    response->lastErrorIs(error);
    if (error != errNone) {
      // Only the first waiting response fails; the others wait for the record's next change.
      response->requestStateIs(stateFinished);
      break;
    }
    if (resolved) response->requestStateIs(stateDispatchReady);
  }
}

void RetraSm::hostResolutionIs(Response& response, const Dnsr::ResolutionRecord& record) {
  for (const auto& [address, present] : record.ipAddress()) {
    RETRA_TRACE(9, "response->ipAddressIs( \"" << address << "\", true )");
    response.ipAddressIs(address, true);
  }
  // The IPv6 lines carry the IPv4 setter's name, as they always have.
  for (const auto& [address, present] : record.ip6Address()) {
    RETRA_TRACE(9, "response->ipAddressIs( \"" << address << "\", true )");
    response.ip6AddressIs(address, true);
  }
}

}  // namespace Retra
