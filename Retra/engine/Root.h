#pragma once

#include "Dnsr/DnsrSm.h"
#include "Dnsr/ResolutionRecordDir.h"
#include "Dnsr/ResolutionRequestDir.h"
#include "Orb/Attribute.h"
#include "Orb/Clock.h"
#include "Orb/Entity.h"
#include "Orb/Name.h"
#include "Orb/Notifiee.h"
#include "Orb/Ptr.h"
#include "Orb/TypeNode.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/model/RequestDir.h"
#include "Retra/model/ResponseDir.h"

// The attributes of `Root`, in declaration order (numbered from 258).
#define RETRA_ROOT_ATTRIBUTES(X)                                            \
  X(HELD, dnsrSm, Orb::Ptr<Dnsr::DnsrSm>, onDnsrSm)                         \
  X(HELD, dnsrRecord, Orb::Ptr<Dnsr::ResolutionRecordDir>, onDnsrRecord)    \
  X(HELD, dnsrRequest, Orb::Ptr<Dnsr::ResolutionRequestDir>, onDnsrRequest) \
  X(HELD, retraSm, Orb::Ptr<RetraSm>, onRetraSm)                            \
  X(HELD, retraRequest, Orb::Ptr<RequestDir>, onRetraRequest)               \
  X(HELD, retraResponse, Orb::Ptr<ResponseDir>, onRetraResponse)            \
  X(SCALAR, initialized, bool, initializedIs, onInitialized, false)

namespace Retra {

// The library's root (entity type "Retra::Root"): the one entity a host creates to bring the
// library up. Creating it builds, in this order, the resolver's request directory "dnsrRequest"
// and record directory "dnsrRecord", the resolver service over them, the client's request
// directory "retraRequest" and response directory "retraResponse", and last the fetch engine
// over all four with the activity manager's clock as its refresh and timeout clock. The engine
// starts at once; clients then write `Request`s into `retraRequest()` and read `Response`s from
// `retraResponse()`.
//
//   auto root = Orb::allocate<Retra::Root>("retra");
//   root->retraRequest()->requestIs(Retra::Request(key));
//   ...
//   root->retraSm()->shutdown();   // stops transfers and libcurl
//   root = nullptr;                // takes the rest down
//
// Ownership: the root holds the four directories (their parent, through the attribute of the
// same name), the resolver service and the engine, each of the two with notification on while
// held. Destroying the root removes, in order, the resolver service, "dnsrRecord",
// "dnsrRequest", the engine, "retraRequest" and "retraResponse". A started engine keeps itself
// alive, so a host that wants transfers and libcurl stopped calls `retraSm()->shutdown()` first.
//
// Notification: each setter and remover that changes an attribute calls its `on<Name>()` on the
// root's `NotifieeConst` observers.
class Root : public Orb::Entity {
 public:
  class NotifieeConst : public Orb::BaseNotifiee<Root> {
   public:
    RETRA_ROOT_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, RETRA_ROOT_ATTRIBUTES);

  // Builds everything (`handleInitialized`) before it returns. Create it with
  // `Orb::allocate<Root>(name)`.
  explicit Root(const Orb::Name& name);

  RETRA_ROOT_ATTRIBUTES(ORB_ENTITY_ACCESSORS)

  // The wiring, in the order above; `initialized` is set last.
  void handleInitialized();

  // The directory of that name: the one held when its name matches, else a new one (the old
  // one leaves the root) with this root as parent.
  Orb::Ptr<Dnsr::ResolutionRequestDir> dnsrRequestIs(const Orb::Name& name);
  Orb::Ptr<Dnsr::ResolutionRecordDir> dnsrRecordIs(const Orb::Name& name);
  Orb::Ptr<RequestDir> retraRequestIs(const Orb::Name& name);
  Orb::Ptr<ResponseDir> retraResponseIs(const Orb::Name& name);

  // The resolver service over the two directories: the one held when it was built over the
  // same two, else a new one (notification on) replacing it.
  Orb::Ptr<Dnsr::DnsrSm> dnsrSmIs(
      const Orb::Ptr<Dnsr::ResolutionRecordDir>& resolutionRecords,
      const Orb::Ptr<const Dnsr::ResolutionRequestDir>& resolutionRequests);
  // The engine over the six objects: the one held when it was built with exactly these, else a
  // new one (`RetraSm::RetraSmIs`, notification on) replacing it.
  Orb::Ptr<RetraSm> retraSmIs(const Orb::Ptr<RequestDir>& requestDir,
                              const Orb::Ptr<ResponseDir>& responseDir,
                              const Orb::Ptr<Dnsr::ResolutionRequestDir>& resolutionRequestDir,
                              const Orb::Ptr<Dnsr::ResolutionRecordDir>& resolutionRecordDir,
                              const Orb::Ptr<Orb::Clock>& refreshClock,
                              const Orb::Ptr<Orb::Clock>& timeoutClock);

  // Each takes its object out and returns it (null when there was none): a directory leaves the
  // root; the resolver service and the engine have their notification switched off.
  Orb::Ptr<Dnsr::ResolutionRecordDir> dnsrRecordDel();
  Orb::Ptr<Dnsr::ResolutionRequestDir> dnsrRequestDel();
  Orb::Ptr<RequestDir> retraRequestDel();
  Orb::Ptr<ResponseDir> retraResponseDel();
  Orb::Ptr<Dnsr::DnsrSm> dnsrSmDel();
  Orb::Ptr<RetraSm> retraSmDel();

  // The framework's switch, turned on once the root is built. The root has no reactor of its
  // own: the flag is recorded.
  [[nodiscard]] bool hasNotificationActive() const noexcept { return hasNotificationActive_; }
  void hasNotificationActiveIs(bool active) { hasNotificationActive_ = active; }

  [[nodiscard]] static const Orb::TypeNode* staticTypeNode();
  [[nodiscard]] const Orb::TypeNode* typeNode() const override { return staticTypeNode(); }

 protected:
  ~Root() override;

 private:
  template <class Directory>
  Orb::Ptr<Directory> directoryIs(Orb::Ptr<Directory>& slot, const Orb::Name& name,
                                  Orb::AttributeId attribute, void (NotifieeConst::*notify)());
  template <class Directory>
  Orb::Ptr<Directory> directoryDel(Orb::Ptr<Directory>& slot, void (NotifieeConst::*notify)());

  bool hasNotificationActive_ = false;
  RETRA_ROOT_ATTRIBUTES(ORB_ENTITY_MEMBERS)
};

}  // namespace Retra
