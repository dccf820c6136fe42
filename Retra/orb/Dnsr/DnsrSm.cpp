#include "Dnsr/DnsrSm.h"

#include <algorithm>
#include <utility>

#include "Dnsr/internal/AresChannel.h"
#include "Dnsr/internal/DnsrTrace.h"
#include "Dnsr/internal/HostLookup.h"
#include "Dnsr/internal/LookupAnswer.h"
#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Orb/ActivityManager.h"
#include "Orb/Clock.h"
#include "Orb/Exception.h"

namespace Dnsr {

// Follows the request directory: every change of an entry, and the whole directory whenever it
// (re)connects.
class DnsrSm::RequestReactor : public ResolutionRequestDir::NotifieeConst {
 public:
  using ResolutionRequestDir::NotifieeConst::onRequest;

  explicit RequestReactor(DnsrSm* sm) : sm_(sm) {}
  void released() { sm_ = nullptr; }

  void onRequest(const Orb::String& host) override {
    if (sm_) sm_->handleRequest(host);
  }
  void onNotifierConnected() override {
    if (sm_) sm_->handleAllRequests();
  }

 private:
  DnsrSm* sm_;
};

// Wakes the service to write answers and to start refreshes.
class DnsrSm::WorkTimer : public Orb::Clock::NotifieeConst {
 public:
  explicit WorkTimer(DnsrSm* sm) : sm_(sm) {}
  void released() { sm_ = nullptr; }

  void onTime() override {
    if (sm_) sm_->handleWork();
  }

 private:
  DnsrSm* sm_;
};

// Hears of finished look-ups inside c-ares and passes them on.
class DnsrSm::LookupListener final : public internal::HostLookup::Listener {
 public:
  explicit LookupListener(DnsrSm* sm) : sm_(sm) {}
  void onLookupDone(internal::HostLookup* lookup) override { sm_->lookupDone(lookup); }

 private:
  DnsrSm* sm_;
};

namespace {

// The address of an IP literal host ("192.0.2.1", "2001:db8::1", "[2001:db8::1]").
struct Literal {
  bool isIp = false;
  bool isIp6 = false;
  Ipkit::IpAddr ip;
  Ipkit::Ip6Addr ip6;
};

Orb::Seconds floorOf(Orb::Seconds floor) {
  return floor >= DnsrConfig::minimumRefreshFloor ? floor : DnsrConfig::minimumRefreshFloor;
}

Literal literalOf(std::string_view host) {
  Literal literal;
  if (Ipkit::IpAddr::parse(host, &literal.ip)) {
    literal.isIp = true;
  } else if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    literal.isIp6 = Ipkit::Ip6Addr::parse(host.substr(1, host.size() - 2), &literal.ip6);
  } else {
    literal.isIp6 = Ipkit::Ip6Addr::parse(host, &literal.ip6);
  }
  return literal;
}

}  // namespace

Orb::Ptr<DnsrSm> DnsrSm::DnsrSmIs(const Orb::Ptr<ResolutionRecordDir>& records,
                                  const Orb::Ptr<const ResolutionRequestDir>& requests) {
  return DnsrSmIs(records, requests, DnsrConfig::fromEnvironment());
}

Orb::Ptr<DnsrSm> DnsrSm::DnsrSmIs(const Orb::Ptr<ResolutionRecordDir>& records,
                                  const Orb::Ptr<const ResolutionRequestDir>& requests,
                                  const DnsrConfig& config) {
  if (!records || !requests) Orb::throwRangeException("null ValidPtr");
  Orb::Ptr<DnsrSm> sm(new DnsrSm(records, requests, config));
  sm->hasNotificationActiveIs(true);
  return sm;
}

DnsrSm::DnsrSm(const Orb::Ptr<ResolutionRecordDir>& records,
               const Orb::Ptr<const ResolutionRequestDir>& requests, const DnsrConfig& config)
    : records_(records),
      requests_(requests),
      config_(config.withSystemLimits()),
      channel_(std::make_unique<internal::AresChannel>(config_, Orb::activityManager()->clock())),
      listener_(std::make_unique<LookupListener>(this)),
      requestReactor_(Orb::allocate<RequestReactor>(this)),
      workTimer_(Orb::allocate<WorkTimer>(this)) {
  config_.refreshFloor = floorOf(config_.refreshFloor);
  lookupDeadline_ = config_.queryTimeout * config_.queryTries *
                    Orb::Seconds(std::max<size_t>(1, channel_->serverCount()));
  channel_->isActiveIs(false);
  // Connected but silent until notification is switched on, which replays the directory.
  requestReactor_->isRegisteredNotifieeIs(false);
  requestReactor_->notifierIs(requests_);
  workTimer_->isRegisteredNotifieeIs(false);
  workTimer_->notifierIs(Orb::activityManager()->clock());
}

DnsrSm::~DnsrSm() {
  requestReactor_->released();
  requestReactor_->notifierIs(nullptr);
  workTimer_->released();
  workTimer_->notifierIs(nullptr);
  for (auto& [host, entry] : hosts_) {
    if (entry.lookup) entry.lookup->cancel();
  }
  channel_.reset();  // in-flight queries end here, unreported
}

void DnsrSm::refreshFloorIs(Orb::Seconds floor) {
  config_.refreshFloor = floorOf(floor);
}

void DnsrSm::hasNotificationActiveIs(bool active) {
  if (active == active_) return;
  active_ = active;
  DNSR_TRACE(9, "notification " << (active ? "on" : "off"));
  channel_->isActiveIs(active);
  workTimer_->isRegisteredNotifieeIs(active);
  requestReactor_->isRegisteredNotifieeIs(active);  // on: replays the directory
}

size_t DnsrSm::lookupsRunning() const noexcept {
  return size_t(std::count_if(hosts_.begin(), hosts_.end(), [](const auto& entry) {
    return entry.second.lookup && !entry.second.lookup->isDone();
  }));
}

size_t DnsrSm::socketWatches() const noexcept {
  return channel_->socketWatchCount();
}

void DnsrSm::handleRequest(const Orb::String& host) {
  Orb::Ptr<DnsrSm> hold(this);  // an observer of the records may drop the last reference
  const bool requested = requests_->request(host) > 0;
  const bool known = hosts_.contains(host);
  if (requested && !known) {
    hostIs(host);
  } else if (!requested && known) {
    hostDel(host);
  }
}

void DnsrSm::handleAllRequests() {
  Orb::Ptr<DnsrSm> hold(this);
  std::vector<Orb::String> gone;
  for (const auto& [host, entry] : hosts_) {
    if (requests_->request(host) == 0) gone.push_back(host);
  }
  // Records that no request stands behind, left by an earlier service, go as well.
  for (const auto& [name, record] : *records_) {
    if (!hosts_.contains(name.string()) && requests_->request(name.string()) == 0) {
      gone.push_back(name.string());
    }
  }
  std::vector<Orb::String> added;
  for (const auto& [host, count] : *requests_) {
    if (count > 0 && !hosts_.contains(host)) added.push_back(host);
  }
  for (const Orb::String& host : gone) hostDel(host);
  for (const Orb::String& host : added) handleRequest(host);
  workScheduled();
}

void DnsrSm::hostIs(const Orb::String& host) {
  hosts_.try_emplace(host, Host{nullptr, nullptr, Orb::Clock::never, Orb::Clock::never});
  // Observers of the directory hear of the record here and may withdraw the request at once.
  Orb::Ptr<ResolutionRecord> record = records_->recordIs(Orb::Name(host));
  auto it = hosts_.find(host);
  // Withdrawn meanwhile, or withdrawn and requested again, which set the host up afresh.
  if (it == hosts_.end() || it->second.record) return;
  it->second.record = record;
  const Literal literal = literalOf(host.view());
  if (!literal.isIp && !literal.isIp6) {
    lookupStarted(host, false);
    return;
  }
  DNSR_TRACE(2, "host='" << host << "' is an address literal");
  if (literal.isIp) {
    record->ipAddressIs(literal.ip, true);
  } else {
    record->ip6AddressIs(literal.ip6, true);
  }
  record->lastErrorIs(errNone);
  record->validIs(true);
}

void DnsrSm::hostDel(const Orb::String& host) {
  const Orb::String key = host;  // `host` may live in the entry erased below
  if (auto it = hosts_.find(key); it != hosts_.end()) {
    if (it->second.lookup) it->second.lookup->cancel();
    hosts_.erase(it);
    DNSR_TRACE(2, "host='" << key << "' withdrawn");
    idleChannelCancelled();
  }
  records_->recordDel(Orb::Name(key));
  workScheduled();
}

void DnsrSm::lookupStarted(const Orb::String& host, bool refresh) {
  auto it = hosts_.find(host);
  if (it == hosts_.end()) return;
  if (refresh) {
    DNSR_TRACE(3, "refreshing host='" << host << "'");
  } else {
    DNSR_TRACE(2, "looking up host='" << host << "'");
  }
  Host& entry = it->second;
  entry.nextLookup = Orb::Clock::never;
  entry.deadline = Orb::System::currentTime() + lookupDeadline_;
  entry.lookup = Orb::allocate<internal::HostLookup>(host, listener_.get());
  Orb::Ptr<internal::HostLookup> lookup = entry.lookup;  // `entry` may not outlive start()
  const Orb::Seconds deadline = entry.deadline;
  lookup->start(channel_->channel());
  channel_->timeoutUpdated();
  if (!lookup->isDone() && deadline < workTimer_->timeMin()) workTimer_->timeMinIs(deadline);
}

void DnsrSm::lookupDone(internal::HostLookup* lookup) {
  // Inside c-ares: only note it; the answer is written on the next loop turn.
  finished_.emplace_back(lookup);
  workTimer_->timeMinIs(Orb::System::currentTime());
}

void DnsrSm::handleWork() {
  Orb::Ptr<DnsrSm> hold(this);
  overdueLookupsExpired();
  answersDelivered();
  refreshesStarted();
  workScheduled();
}

void DnsrSm::overdueLookupsExpired() {
  const Orb::Seconds now = Orb::System::currentTime();
  std::vector<Orb::Ptr<internal::HostLookup>> overdue;
  for (const auto& [host, entry] : hosts_) {
    if (entry.lookup && !entry.lookup->isDone() && entry.deadline <= now) {
      overdue.push_back(entry.lookup);
    }
  }
  if (overdue.empty()) return;
  for (const Orb::Ptr<internal::HostLookup>& lookup : overdue) lookup->expire();
  // Their queries may still be out: with no other look-up running, end them.
  idleChannelCancelled();
}

void DnsrSm::answersDelivered() {
  std::vector<Orb::Ptr<internal::HostLookup>> finished = std::move(finished_);
  finished_.clear();
  for (const Orb::Ptr<internal::HostLookup>& lookup : finished) {
    auto it = hosts_.find(lookup->host());
    if (lookup->isCancelled() || it == hosts_.end() || it->second.lookup != lookup) continue;
    const internal::LookupAnswer& answer = lookup->answer();
    Host& entry = it->second;
    Orb::Ptr<ResolutionRecord> record = entry.record;
    entry.lookup = nullptr;
    const Orb::Seconds wait = std::max(answer.succeeded() ? answer.ttl : 0, config_.refreshFloor);
    entry.nextLookup = Orb::System::currentTime() + wait;
    if (answer.succeeded()) {
      DNSR_TRACE(3, "host='" << lookup->host() << "' resolved: " << answer.ip.size() << " A, "
                             << answer.ip6.size() << " AAAA"
                             << (lookup->isFromHostsFile() ? " from the hosts file" : "")
                             << ", next look-up in " << wait << " s");
    } else {
      DNSR_TRACE(3, "host='" << lookup->host()
                             << "' failed: " << resolutionErrorType().stringValue(answer.error()));
    }
    // Observers run here and may withdraw any request, this one included.
    internal::answerApplied(*record, answer, Orb::System::currentTime());
  }
}

void DnsrSm::refreshesStarted() {
  const Orb::Seconds now = Orb::System::currentTime();
  std::vector<Orb::String> due;
  for (const auto& [host, entry] : hosts_) {
    if (!entry.lookup && entry.nextLookup <= now) due.push_back(host);
  }
  for (const Orb::String& host : due) lookupStarted(host, true);
}

void DnsrSm::workScheduled() {
  Orb::Seconds next = Orb::Clock::never;
  if (!finished_.empty()) next = Orb::System::currentTime();
  for (const auto& [host, entry] : hosts_) {
    if (!entry.lookup) {
      next = std::min(next, entry.nextLookup);
    } else if (!entry.lookup->isDone()) {
      next = std::min(next, entry.deadline);
    }
  }
  if (next != workTimer_->timeMin()) workTimer_->timeMinIs(next);
}

void DnsrSm::idleChannelCancelled() {
  if (lookupsRunning() > 0) return;
  // Queries still in flight belong to withdrawn hosts: end them so c-ares closes its sockets.
  channel_->queriesCancelled();
}

}  // namespace Dnsr
