#include "Dnsr/internal/LookupAnswer.h"

#include <ares.h>

#include <algorithm>

namespace Dnsr::internal {

namespace {

// A status that settles what the family has: addresses, or definitely none.
bool isDefinite(int status) {
  return status == ARES_SUCCESS || status == ARES_ENODATA || status == ARES_ENOTFOUND;
}

// Makes `set` hold exactly `addresses`: removes what is gone, then adds what is new.
template <class Address, class Set, class Del, class Add>
void setReplaced(const Set& set, const std::vector<Address>& addresses, Del del, Add add) {
  std::vector<Address> gone;
  for (const auto& [address, present] : set) {
    if (std::find(addresses.begin(), addresses.end(), address) == addresses.end()) {
      gone.push_back(address);
    }
  }
  for (const Address& address : gone) del(address);
  for (const Address& address : addresses) add(address);
}

}  // namespace

ResolutionError LookupAnswer::error() const noexcept {
  if (succeeded()) return errNone;
  for (int status : {ipStatus, ip6Status}) {
    if (!isDefinite(status)) return resolutionErrorOfAresStatus(status);
  }
  if (ipStatus == ARES_ENOTFOUND || ip6Status == ARES_ENOTFOUND) return errNoSuchName;
  return errNoData;
}

void answerApplied(ResolutionRecord& record, const LookupAnswer& answer, Orb::Seconds now) {
  record.lastLookupDurationIs(answer.duration);
  record.lastLookupTimeIs(answer.started);
  if (!answer.succeeded()) {
    if (record.valid()) {
      // The last good addresses stand: users of the record need not hear of an outage.
      record.lastRefreshErrorTimeIs(now);
      record.lastRefreshErrorIs(answer.error());
    } else {
      record.lastErrorIs(answer.error());
    }
    return;
  }
  if (isDefinite(answer.ipStatus)) {
    setReplaced(
        record.ipAddress(), answer.ip, [&](const auto& a) { record.ipAddressDel(a); },
        [&](const auto& a) { record.ipAddressIs(a, true); });
  }
  if (isDefinite(answer.ip6Status)) {
    setReplaced(
        record.ip6Address(), answer.ip6, [&](const auto& a) { record.ip6AddressDel(a); },
        [&](const auto& a) { record.ip6AddressIs(a, true); });
  }
  record.lastRefreshErrorIs(errNone);
  record.lastErrorIs(errNone);
  record.validIs(true);
}

}  // namespace Dnsr::internal
