// The engine's reactor attributes and its keyed collections of state machines and reactors.

#include <utility>
#include <vector>

#include "Orb/Exception.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/request/RequestSm.h"

namespace Retra {

namespace {

// Connects a new reactor to what it watches, registered only while the engine's notification
// is on. It replays what it finds, so the engine must already hold it.
template <class Reactor, class Source>
void connect(Reactor& reactor, const Orb::Ptr<Source>& source, bool active) {
  if (!active) reactor.isRegisteredNotifieeIs(false);
  reactor.notifierIs(source);
}

// Cuts a reactor the engine lets go of off from the engine before releasing it.
template <class Reactor>
void release(Orb::Ptr<Reactor>& reactor) {
  if (!reactor) return;
  reactor->engineIs(nullptr);
  reactor = nullptr;
}

}  // namespace

// ---- Reactors on the directories and clocks

void RetraSm::retraRequestIs(const Orb::Ptr<RequestDir>& requestDir) {
  if (retraRequest_ && retraRequest_->directory() == requestDir) return;
  auto reactor = Orb::allocate<OrbRetraRequest>(this, requestDir);
  auto old = std::exchange(retraRequest_, reactor);
  connect(*reactor, requestDir, hasNotificationActive_);
  release(old);
  notifiees().doVisit(&NotifieeConst::onRetraRequest);
}

void RetraSm::retraResponseIs(const Orb::Ptr<ResponseDir>& responseDir) {
  if (retraResponse_ && retraResponse_->directory() == responseDir) return;
  auto reactor = Orb::allocate<OrbRetraResponse>(this, responseDir);
  auto old = std::exchange(retraResponse_, reactor);
  connect(*reactor, responseDir, hasNotificationActive_);
  release(old);
  notifiees().doVisit(&NotifieeConst::onRetraResponse);
}

void RetraSm::dnsrRequestIs(const Orb::Ptr<Dnsr::ResolutionRequestDir>& resolutionRequestDir) {
  if (dnsrRequest_ == resolutionRequestDir) return;
  dnsrRequest_ = resolutionRequestDir;
  notifiees().doVisit(&NotifieeConst::onDnsrRequest);
}

void RetraSm::dnsrRecordIs(const Orb::Ptr<Dnsr::ResolutionRecordDir>& resolutionRecordDir) {
  if (dnsrRecord_ && dnsrRecord_->directory() == resolutionRecordDir) return;
  auto reactor = Orb::allocate<OrbDnsrRecord>(this, resolutionRecordDir);
  auto old = std::exchange(dnsrRecord_, reactor);
  connect(*reactor, resolutionRecordDir, hasNotificationActive_);
  release(old);
  notifiees().doVisit(&NotifieeConst::onDnsrRecord);
}

void RetraSm::refreshClockIs(const Orb::Ptr<Orb::Clock>& clock) {
  if (refreshClock_ && refreshClock_->clock() == clock) return;
  auto reactor = Orb::allocate<OrbRefreshClock>(this, clock);
  auto old = std::exchange(refreshClock_, reactor);
  connect(*reactor, clock, hasNotificationActive_);
  release(old);
  notifiees().doVisit(&NotifieeConst::onRefreshClock);
}

void RetraSm::timeoutClockIs(const Orb::Ptr<Orb::Clock>& clock) {
  if (timeoutClock_ && timeoutClock_->clock() == clock) return;
  auto reactor = Orb::allocate<OrbTimeoutClock>(this, clock);
  auto old = std::exchange(timeoutClock_, reactor);
  connect(*reactor, clock, hasNotificationActive_);
  release(old);
  notifiees().doVisit(&NotifieeConst::onTimeoutClock);
}

// ---- requestSm

Orb::Ptr<RequestSm> RetraSm::requestSm(const RequestKey& key) const {
  auto it = requestSm_.find(key);
  return it == requestSm_.end() ? Orb::Ptr<RequestSm>() : it->second;
}

void RetraSm::requestSmIs(const RequestKey& key, const Orb::Ptr<RequestSm>& sm) {
  if (!sm) {
    (void)requestSmDel(key);
    return;
  }
  const RequestKey member = key;
  auto it = requestSm_.find(member);
  if (it != requestSm_.end() && it->second == sm) return;
  Orb::KeepAlive keep(*this);
  if (it != requestSm_.end()) {
    // The previous machine goes first: its teardown finishes the response, and whatever reacts
    // to that must not find (and drop) the new machine already in place.
    Orb::Ptr<RequestSm> previous = std::move(it->second);
    requestSm_.erase(it);
    previous = nullptr;
  }
  requestSm_.insert_or_assign(member, sm);
  Orb::notifyMember(*this, &NotifieeConst::onRequestSm, &NotifieeConst::onRequestSmImmediate,
                    member);
}

Orb::Ptr<RequestSm> RetraSm::requestSmDel(const RequestKey& key) {
  auto it = requestSm_.find(key);
  if (it == requestSm_.end()) return nullptr;
  const RequestKey member = key;  // `key` may live in the entry being erased
  Orb::Ptr<RequestSm> removed = std::move(it->second);
  requestSm_.erase(it);
  Orb::notifyMember(*this, &NotifieeConst::onRequestSm, &NotifieeConst::onRequestSmImmediate,
                    member);
  return removed;
}

void RetraSm::requestSmDelAll() {
  std::vector<RequestKey> keys;
  for (const auto& [key, sm] : requestSm_) keys.push_back(key);
  for (const RequestKey& key : keys) (void)requestSmDel(key);
}

// ---- retraResponseReactor

Orb::Ptr<RetraSm::OrbRetraResponseReactor> RetraSm::retraResponseReactor(
    const RequestKey& key) const {
  auto it = retraResponseReactor_.find(key);
  return it == retraResponseReactor_.end() ? nullptr : it->second;
}

Orb::Ptr<RetraSm::OrbRetraResponseReactor> RetraSm::retraResponseReactorIs(
    const Orb::Ptr<const Response>& response) {
  if (!response) {
    Orb::throwRangeException(
        "null _retraResponseReactor parameter to mutator for "
        "Retra::RetraSm::retraResponseReactor not allowed\"");
  }
  const RequestKey key = response->requestKey();
  auto it = retraResponseReactor_.find(key);
  if (it != retraResponseReactor_.end() && it->second->response() == response) return it->second;
  auto reactor = Orb::allocate<OrbRetraResponseReactor>(this, response);
  Orb::Ptr<OrbRetraResponseReactor> old;
  if (it != retraResponseReactor_.end())
    old = std::exchange(it->second, reactor);
  else
    retraResponseReactor_.emplace(key, reactor);
  release(old);
  connect(*reactor, response, hasNotificationActive_);
  Orb::notifyMember(*this, &NotifieeConst::onRetraResponseReactor,
                    &NotifieeConst::onRetraResponseReactorImmediate, key);
  return reactor;
}

void RetraSm::retraResponseReactorDel(const RequestKey& key) {
  auto it = retraResponseReactor_.find(key);
  if (it == retraResponseReactor_.end()) return;
  const RequestKey member = key;
  Orb::Ptr<OrbRetraResponseReactor> removed = std::move(it->second);
  retraResponseReactor_.erase(it);
  release(removed);
  Orb::notifyMember(*this, &NotifieeConst::onRetraResponseReactor,
                    &NotifieeConst::onRetraResponseReactorImmediate, member);
}

void RetraSm::retraResponseReactorDelAll() {
  std::vector<RequestKey> keys;
  for (const auto& [key, reactor] : retraResponseReactor_) keys.push_back(key);
  for (const RequestKey& key : keys) retraResponseReactorDel(key);
}

// ---- dnsrRecordReactor

Orb::Ptr<RetraSm::OrbDnsrRecordReactor> RetraSm::dnsrRecordReactor(const Orb::Name& name) const {
  auto it = dnsrRecordReactor_.find(name);
  return it == dnsrRecordReactor_.end() ? nullptr : it->second;
}

Orb::Ptr<RetraSm::OrbDnsrRecordReactor> RetraSm::dnsrRecordReactorIs(
    const Orb::Ptr<const Dnsr::ResolutionRecord>& record) {
  if (!record) {
    Orb::throwRangeException(
        "null _dnsrRecordReactor parameter to mutator for "
        "Retra::RetraSm::dnsrRecordReactor not allowed\"");
  }
  const Orb::Name name = record->name();
  auto it = dnsrRecordReactor_.find(name);
  if (it != dnsrRecordReactor_.end() && it->second->record() == record) return it->second;
  auto reactor = Orb::allocate<OrbDnsrRecordReactor>(this, record);
  Orb::Ptr<OrbDnsrRecordReactor> old;
  if (it != dnsrRecordReactor_.end())
    old = std::exchange(it->second, reactor);
  else
    dnsrRecordReactor_.emplace(name, reactor);
  release(old);
  connect(*reactor, record, hasNotificationActive_);
  Orb::notifyMember(*this, &NotifieeConst::onDnsrRecordReactor,
                    &NotifieeConst::onDnsrRecordReactorImmediate, name);
  return reactor;
}

void RetraSm::dnsrRecordReactorDel(const Orb::Name& name) {
  auto it = dnsrRecordReactor_.find(name);
  if (it == dnsrRecordReactor_.end()) return;
  const Orb::Name member = name;
  Orb::Ptr<OrbDnsrRecordReactor> removed = std::move(it->second);
  dnsrRecordReactor_.erase(it);
  release(removed);
  Orb::notifyMember(*this, &NotifieeConst::onDnsrRecordReactor,
                    &NotifieeConst::onDnsrRecordReactorImmediate, member);
}

void RetraSm::dnsrRecordReactorDelAll() {
  std::vector<Orb::Name> names;
  for (const auto& [name, reactor] : dnsrRecordReactor_) names.push_back(name);
  for (const Orb::Name& name : names) dnsrRecordReactorDel(name);
}

}  // namespace Retra
