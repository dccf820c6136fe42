#pragma once

#include "Orb/Attribute.h"
#include "Orb/Entity.h"
#include "Orb/HashMap.h"
#include "Orb/String.h"

// request  host name -> reference count; a host is requested while its count is non-zero
#define DNSR_RESOLUTION_REQUEST_DIR_ATTRIBUTES(X)                                                \
  X(COLLECTION, request, Orb::String, unsigned, requestIs, requestDel, requestDelAll, onRequest, \
    onRequestImmediate)

namespace Dnsr {

// The host names a client wants resolved (type "Dnsr::ResolutionRequestDir"): a collection
// `request` from host name to a reference count. The client (the fetch engine) writes it; the
// resolver service (`DnsrSm`) watches it and publishes one `ResolutionRecord` per host in its
// `ResolutionRecordDir`.
//
// The service reads the count only as "requested or not": a host is requested while its count
// is non-zero. `request(host)` reads 0 for a host without entry. `requestIs(host, 0)` keeps an
// entry with count 0, which the service treats exactly like a removed one (it cancels the
// look-up and removes the record); `requestDel(host)` removes the entry.
//
// Every real change of an entry (added, count changed, removed) calls `onRequest(host)` and then
// `onRequestImmediate()` on the observers, after the collection has changed.
//
//   auto requests = Orb::allocate<Dnsr::ResolutionRequestDir>("dnsrRequest");
//   requests->requestIs("www.example.org", 1);   // the service starts looking it up
//   requests->request("www.example.org");        // 1
//   requests->requestDel("www.example.org");     // the service forgets it and its record
class ResolutionRequestDir : public Orb::Entity {
 public:
  class NotifieeConst : public Orb::BaseNotifiee<ResolutionRequestDir> {
   public:
    DNSR_RESOLUTION_REQUEST_DIR_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)

   protected:
    NotifieeConst() = default;
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, DNSR_RESOLUTION_REQUEST_DIR_ATTRIBUTES);

  explicit ResolutionRequestDir(const Orb::Name& name) : Orb::Entity(name) {}

  [[nodiscard]] const Orb::TypeNode* typeNode() const override;

  DNSR_RESOLUTION_REQUEST_DIR_ATTRIBUTES(ORB_ENTITY_ACCESSORS)

  [[nodiscard]] auto begin() const noexcept { return request_.begin(); }
  [[nodiscard]] auto end() const noexcept { return request_.end(); }

 protected:
  ~ResolutionRequestDir() override = default;

 private:
  DNSR_RESOLUTION_REQUEST_DIR_ATTRIBUTES(ORB_ENTITY_MEMBERS)
};

}  // namespace Dnsr
