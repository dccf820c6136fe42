#pragma once

#include "Dnsr/ResolutionError.h"
#include "Ipkit/Ip6Addr.h"
#include "Ipkit/IpAddr.h"
#include "Orb/Attribute.h"
#include "Orb/Entity.h"
#include "Orb/HashMap.h"
#include "Orb/Seconds.h"
#include "Orb/String.h"

// hostname              the name looked up, fixed at creation
// valid                 the address sets are usable
// lastError             a `Dnsr::ResolutionError`: `errNone` (0) once a look-up has succeeded,
//                       else why the last one failed; a valid record keeps `errNone`
// ipAddress             the IPv4 addresses, a set: each key is an address, stored with `true`
// ip6Address            the IPv6 addresses, likewise
// lastRefreshError      a `Dnsr::ResolutionError`: why the latest refresh of a valid record
//                       failed; back to `errNone` when a refresh succeeds
// lastRefreshErrorTime  when a refresh of a valid record last failed (`System::currentTime()`);
//                       0 if none has, and kept when a later refresh succeeds
// lastLookupDuration    how long the latest look-up took, in seconds of a monotonic clock: from
//                       sending the queries to the answer, or to the failure or time-out
// lastLookupTime        when the latest look-up started (`System::currentTime()`); 0 until one
//                       has ended. Neither is written for an address literal, which needs none
#define DNSR_RESOLUTION_RECORD_ATTRIBUTES(X)                                                     \
  X(FIXED, hostname, Orb::String)                                                                \
  X(SCALAR, valid, bool, validIs, onValid, false)                                                \
  X(SCALAR, lastError, unsigned, lastErrorIs, onLastError, 0u)                                   \
  X(COLLECTION, ipAddress, Ipkit::IpAddr, bool, ipAddressIs, ipAddressDel, ipAddressDelAll,      \
    onIpAddress, onIpAddressImmediate)                                                           \
  X(COLLECTION, ip6Address, Ipkit::Ip6Addr, bool, ip6AddressIs, ip6AddressDel, ip6AddressDelAll, \
    onIp6Address, onIp6AddressImmediate)                                                         \
  X(SCALAR, lastRefreshError, unsigned, lastRefreshErrorIs, onLastRefreshError, 0u)              \
  X(SCALAR, lastRefreshErrorTime, Orb::Seconds, lastRefreshErrorTimeIs, onLastRefreshErrorTime,  \
    0.0)                                                                                         \
  X(SCALAR, lastLookupDuration, double, lastLookupDurationIs, onLastLookupDuration, 0.0)         \
  X(SCALAR, lastLookupTime, Orb::Seconds, lastLookupTimeIs, onLastLookupTime, 0.0)

namespace Dnsr {

// The outcome of resolving one host name (type "Dnsr::ResolutionRecord"), published by the
// resolver service in its `ResolutionRecordDir` under the host name, which is also the record's
// entity name. The service is the only writer; clients observe.
//
// Each mutator notifies only on a real change, after the change: `onValid()`, `onLastError()`,
// `onLastRefreshError()`, `onLastRefreshErrorTime()`, `onLastLookupDuration()`,
// `onLastLookupTime()`, and for an address added, changed or removed `onIpAddress(address)` (or
// `onIp6Address`) followed by `onIpAddressImmediate()`. The service writes a successful answer's
// addresses before it clears `lastError` and sets `valid`, so an observer of either sees them
// complete. Every look-up that ends, refreshes and failures included, first stamps
// `lastLookupDuration` then `lastLookupTime`, before any other change it brings, so an observer
// of the outcome reads the timing of the look-up behind it. Once `valid`, the record stays valid
// with `lastError` `errNone` for good: a refresh that fails keeps the addresses and reports only
// in `lastRefreshErrorTime` then `lastRefreshError`, and a refresh with other addresses changes
// only the address sets, so observers of `valid` and `lastError` hear nothing of either.
//
//   class Ready : public Dnsr::ResolutionRecord::NotifieeConst {
//     void onValid() override {
//       for (const auto& [address, present] : notifier()->ipAddress()) connectTo(address);
//     }
//   };
class ResolutionRecord : public Orb::Entity {
 public:
  class NotifieeConst : public Orb::BaseNotifiee<ResolutionRecord> {
   public:
    DNSR_RESOLUTION_RECORD_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)

   protected:
    NotifieeConst() = default;
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, DNSR_RESOLUTION_RECORD_ATTRIBUTES);

  // A record for the host `name`: not valid, no error, no addresses.
  explicit ResolutionRecord(const Orb::Name& name) : Orb::Entity(name), hostname_(name) {}

  [[nodiscard]] const Orb::TypeNode* typeNode() const override;

  DNSR_RESOLUTION_RECORD_ATTRIBUTES(ORB_ENTITY_ACCESSORS)

 protected:
  ~ResolutionRecord() override = default;

 private:
  DNSR_RESOLUTION_RECORD_ATTRIBUTES(ORB_ENTITY_MEMBERS)
};

}  // namespace Dnsr
