#include "Retra/engine/Root.h"

#include <utility>

#include "Orb/ActivityManager.h"
#include "Orb/Exception.h"
#include "Retra/internal/LibTrace.h"

namespace Retra {

Root::Root(const Orb::Name& name) : Orb::Entity(name) {
  handleInitialized();
}

Root::~Root() {
  (void)dnsrSmDel();
  (void)dnsrRecordDel();
  (void)dnsrRequestDel();
  (void)retraSmDel();
  (void)retraRequestDel();
  (void)retraResponseDel();
}

void Root::handleInitialized() {
  RETRA_TRACE(2, "handleInitialized");
  (void)dnsrRequestIs("dnsrRequest");
  (void)dnsrRecordIs("dnsrRecord");
  // The resolver runs before the engine exists, so the engine's resolver reactors find it.
  (void)dnsrSmIs(dnsrRecord_, dnsrRequest_);
  (void)retraRequestIs("retraRequest");
  (void)retraResponseIs("retraResponse");
  const Orb::Ptr<Orb::Clock> refreshClock = Orb::activityManager()->clock();
  const Orb::Ptr<Orb::Clock> timeoutClock = Orb::activityManager()->clock();
  // Last, so that the engine's start finds both client directories.
  (void)retraSmIs(retraRequest_, retraResponse_, dnsrRequest_, dnsrRecord_, refreshClock,
                  timeoutClock);
  initializedIs(true);
}

template <class Directory>
Orb::Ptr<Directory> Root::directoryIs(Orb::Ptr<Directory>& slot, const Orb::Name& name,
                                      Orb::AttributeId attribute, void (NotifieeConst::*notify)()) {
  if (slot && slot->name() == name) return slot;
  if (slot) slot->parentIs(nullptr);
  Orb::Ptr<Directory> directory = Orb::allocate<Directory>(name);
  if (!directory) Orb::throwRangeException("null ValidPtr");
  // A plain pointer: the constructor adopts children before any counted pointer holds the root.
  directory->parentIs(this);
  directory->parentAttrIdIs(attribute);
  slot = directory;
  notifiees().doVisit(notify);
  return directory;
}

template <class Directory>
Orb::Ptr<Directory> Root::directoryDel(Orb::Ptr<Directory>& slot, void (NotifieeConst::*notify)()) {
  Orb::Ptr<Directory> directory = std::exchange(slot, nullptr);
  if (!directory) return directory;
  directory->parentIs(nullptr);
  notifiees().doVisit(notify);
  return directory;
}

Orb::Ptr<Dnsr::ResolutionRequestDir> Root::dnsrRequestIs(const Orb::Name& name) {
  return directoryIs(dnsrRequest_, name, Attr::dnsrRequest, &NotifieeConst::onDnsrRequest);
}

Orb::Ptr<Dnsr::ResolutionRecordDir> Root::dnsrRecordIs(const Orb::Name& name) {
  return directoryIs(dnsrRecord_, name, Attr::dnsrRecord, &NotifieeConst::onDnsrRecord);
}

Orb::Ptr<RequestDir> Root::retraRequestIs(const Orb::Name& name) {
  return directoryIs(retraRequest_, name, Attr::retraRequest, &NotifieeConst::onRetraRequest);
}

Orb::Ptr<ResponseDir> Root::retraResponseIs(const Orb::Name& name) {
  return directoryIs(retraResponse_, name, Attr::retraResponse, &NotifieeConst::onRetraResponse);
}

Orb::Ptr<Dnsr::ResolutionRecordDir> Root::dnsrRecordDel() {
  return directoryDel(dnsrRecord_, &NotifieeConst::onDnsrRecord);
}

Orb::Ptr<Dnsr::ResolutionRequestDir> Root::dnsrRequestDel() {
  return directoryDel(dnsrRequest_, &NotifieeConst::onDnsrRequest);
}

Orb::Ptr<RequestDir> Root::retraRequestDel() {
  return directoryDel(retraRequest_, &NotifieeConst::onRetraRequest);
}

Orb::Ptr<ResponseDir> Root::retraResponseDel() {
  return directoryDel(retraResponse_, &NotifieeConst::onRetraResponse);
}

Orb::Ptr<Dnsr::DnsrSm> Root::dnsrSmIs(
    const Orb::Ptr<Dnsr::ResolutionRecordDir>& resolutionRecords,
    const Orb::Ptr<const Dnsr::ResolutionRequestDir>& resolutionRequests) {
  if (dnsrSm_ && dnsrSm_->records() == resolutionRecords &&
      dnsrSm_->requests() == resolutionRequests) {
    return dnsrSm_;
  }
  Orb::Ptr<Dnsr::DnsrSm> sm = Dnsr::DnsrSm::DnsrSmIs(resolutionRecords, resolutionRequests);
  if (!sm) Orb::throwRangeException("null ValidPtr");
  sm->hasNotificationActiveIs(true);
  Orb::Ptr<Dnsr::DnsrSm> old = std::exchange(dnsrSm_, sm);
  if (old) old->hasNotificationActiveIs(false);
  old = nullptr;
  notifiees().doVisit(&NotifieeConst::onDnsrSm);
  return sm;
}

Orb::Ptr<RetraSm> Root::retraSmIs(const Orb::Ptr<RequestDir>& requestDir,
                                  const Orb::Ptr<ResponseDir>& responseDir,
                                  const Orb::Ptr<Dnsr::ResolutionRequestDir>& resolutionRequestDir,
                                  const Orb::Ptr<Dnsr::ResolutionRecordDir>& resolutionRecordDir,
                                  const Orb::Ptr<Orb::Clock>& refreshClock,
                                  const Orb::Ptr<Orb::Clock>& timeoutClock) {
  if (retraSm_ && retraSm_->retraRequest()->directory() == requestDir &&
      retraSm_->retraResponse()->directory() == responseDir &&
      retraSm_->dnsrRequest() == resolutionRequestDir &&
      retraSm_->dnsrRecord()->directory() == resolutionRecordDir &&
      retraSm_->refreshClock()->clock() == refreshClock &&
      retraSm_->timeoutClock()->clock() == timeoutClock) {
    return retraSm_;
  }
  Orb::Ptr<RetraSm> sm = RetraSm::RetraSmIs(requestDir, responseDir, resolutionRequestDir,
                                            resolutionRecordDir, refreshClock, timeoutClock);
  if (!sm) Orb::throwRangeException("null ValidPtr");
  sm->hasNotificationActiveIs(true);
  Orb::Ptr<RetraSm> old = std::exchange(retraSm_, sm);
  if (old) old->hasNotificationActiveIs(false);
  old = nullptr;
  notifiees().doVisit(&NotifieeConst::onRetraSm);
  return sm;
}

Orb::Ptr<Dnsr::DnsrSm> Root::dnsrSmDel() {
  Orb::Ptr<Dnsr::DnsrSm> sm = std::exchange(dnsrSm_, nullptr);
  if (!sm) return sm;
  sm->hasNotificationActiveIs(false);
  notifiees().doVisit(&NotifieeConst::onDnsrSm);
  return sm;
}

Orb::Ptr<RetraSm> Root::retraSmDel() {
  Orb::Ptr<RetraSm> sm = std::exchange(retraSm_, nullptr);
  if (!sm) return sm;
  sm->hasNotificationActiveIs(false);
  notifiees().doVisit(&NotifieeConst::onRetraSm);
  return sm;
}

const Orb::TypeNode* Root::staticTypeNode() {
  static const auto* node =
      new Orb::TypeNode("Retra::Root", Orb::TypeNode::Kind::entity,
                        ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, RETRA_ROOT_ATTRIBUTES));
  return node;
}

}  // namespace Retra
