#include "Dnsr/ResolutionError.h"

#include <ares.h>

namespace Dnsr {

namespace {

const Orb::EnumDescriptor& registeredType() {
  static const Orb::EnumDescriptor* type = [] {
    static const Orb::EnumDescriptor descriptor("Dnsr::ResolutionError",
                                                {{"errNone", errNone},
                                                 {"errNoSuchName", errNoSuchName},
                                                 {"errNoData", errNoData},
                                                 {"errServerFailure", errServerFailure},
                                                 {"errRefused", errRefused},
                                                 {"errTimeout", errTimeout},
                                                 {"errBadName", errBadName},
                                                 {"errOther", errOther}});
    Orb::typeNodeIs(&descriptor);
    return &descriptor;
  }();
  return *type;
}

// Registers the enumeration at load time; `resolutionErrorType()` covers earlier callers.
[[maybe_unused]] const Orb::EnumDescriptor& typeAtLoad = registeredType();

}  // namespace

const Orb::EnumDescriptor& resolutionErrorType() {
  return registeredType();
}

ResolutionError resolutionErrorOfAresStatus(int status) noexcept {
  switch (status) {
    case ARES_SUCCESS:
      return errNone;
    case ARES_ENOTFOUND:
    case ARES_ENONAME:
      return errNoSuchName;
    case ARES_ENODATA:
      return errNoData;
    case ARES_ESERVFAIL:
    case ARES_EFORMERR:
    case ARES_ENOTIMP:
    case ARES_EBADRESP:
    case ARES_ECONNREFUSED:
    case ARES_EOF:
      return errServerFailure;
    case ARES_EREFUSED:
      return errRefused;
    case ARES_ETIMEOUT:
      return errTimeout;
    case ARES_EBADNAME:
      return errBadName;
    default:
      return errOther;
  }
}

}  // namespace Dnsr
