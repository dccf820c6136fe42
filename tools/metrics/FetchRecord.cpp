#include "metrics/FetchRecord.h"

#include <algorithm>

#include "Orb/ActivityManager.h"
#include "Retra/engine/RequestUri.h"
#include "metrics/Exposition.h"

namespace RetraMetrics {

FetchRecord::FetchRecord(uint32_t uid, Orb::Ptr<const Dnsr::ResolutionRecordDir> resolverRecords)
    : uid_(uid), resolverRecords_(std::move(resolverRecords)) {}

void FetchRecord::onNotifierConnected() {
  const Orb::Ptr<const Retra::Response> response = notifier();
  labels_ = "uid=\"" + std::to_string(uid_) + "\",method=\"";
  appendLabelValue(labels_, Retra::stringValue(response->method()).view());
  labels_ += "\",uri=\"";
  appendLabelValue(labels_, response->uri().view());
  labels_ += '"';
  onLastUpdateTime();
  onLastChangeTime();
  fetching_ = !response->finished();
  fetchStart_ = Orb::activityManager()->currentTime();
  if (!fetching_ && response->numRequest() > 0) {
    fetchFinished();
  } else {
    previous_ = totalsNow();
  }
}

void FetchRecord::onRequestState() {
  const bool finished = notifier()->finished();
  if (finished && fetching_) {
    fetching_ = false;
    fetchFinished();
  } else if (!finished && !fetching_) {
    fetching_ = true;
    fetchStart_ = Orb::activityManager()->currentTime();
  }
}

void FetchRecord::onLastUpdateTime() {
  if (notifier()->lastUpdateTime() != 0) lastUpdateTime_ = notifier()->lastUpdateTime();
}

void FetchRecord::onLastChangeTime() {
  if (notifier()->lastChangeTime() != 0) lastChangeTime_ = notifier()->lastChangeTime();
}

FetchRecord::Totals FetchRecord::totalsNow() const {
  Totals totals;
  const Retra::Response& response = *notifier();
  if (const auto timer = response.timer()) {
    totals.connect = timer->connect();
    totals.sslHandshake = timer->sslHandshake();
    totals.request = timer->request();
    totals.response = timer->response();
    totals.total = timer->total();
  }
  if (const auto counter = response.counter()) totals.redirects = counter->numRedirect();
  return totals;
}

int FetchRecord::ipProtocolOf(const Retra::Response& response) {
  // Resolved hosts: libcurl is given the IPv6 addresses first. Address literals are not resolved.
  if (!response.ip6Address().empty()) return 6;
  if (!response.ipAddress().empty()) return 4;
  const auto uri = Retra::RequestUri::parsed(response.uri());
  if (!uri || !uri->hostIsAddress) return 0;
  return uri->host.view().find(':') != std::string_view::npos ? 6 : 4;
}

double FetchRecord::resolveSeconds(const Retra::Response& response) const {
  // The host's record tells of its latest look-up: this fetch's share when it started after the
  // fetch did, none when the fetch found the addresses known already.
  if (response.host().empty()) return 0;
  const auto record = resolverRecords_->record(Orb::Name(response.host()));
  if (!record || record->lastLookupTime() < fetchStart_) return 0;
  return record->lastLookupDuration();
}

void FetchRecord::fetchFinished() {
  const Retra::Response& response = *notifier();
  const Totals now = totalsNow();
  LastFetch last;
  last.statusCode = response.statusCode();
  last.error = response.lastError();
  last.success = last.error == Retra::errNone && last.statusCode > 0 && last.statusCode < 400;
  last.resolve = resolveSeconds(response);
  last.connect = std::max(0.0, now.connect - previous_.connect);
  const double handshake = now.sslHandshake - previous_.sslHandshake;
  last.tls = handshake > 0 ? std::max(0.0, handshake - last.connect) : 0.0;
  last.processing = std::max(0.0, now.response - previous_.response);
  const double total = std::max(0.0, now.total - previous_.total);
  last.transfer = std::max(0.0, total - (now.request - previous_.request) - last.processing);
  last.duration = total + last.resolve;
  last.contentLength = response.contentLengthDownload();
  last.redirects = now.redirects - previous_.redirects;
  last.ipProtocol = ipProtocolOf(response);
  lastFetch_ = last;
  previous_ = now;
  ++fetches_;
  if (last.error == Retra::errNone) return;
  auto it = std::find_if(errors_.begin(), errors_.end(),
                         [&](const auto& entry) { return entry.first == last.error; });
  if (it == errors_.end()) {
    errors_.emplace_back(last.error, 1);
  } else {
    ++it->second;
  }
}

}  // namespace RetraMetrics
