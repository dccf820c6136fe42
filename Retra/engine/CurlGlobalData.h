#pragma once

#include "Orb/Ptr.h"

namespace Retra {

class RetraSm;

// The record handed to libcurl's multi socket and timer callbacks (`CURLMOPT_SOCKETDATA`,
// `CURLMOPT_TIMERDATA`): the callbacks reach the engine through it.
//
// The engine allocates it zero-filled (`calloc`) when it starts and frees it (`free`) in
// `RetraSm::shutdown`. Storing the engine takes a reference that is never given back, freeing
// the record included: a started engine keeps itself alive and is stopped only by `shutdown`.
struct CurlGlobalData {
  Orb::Ptr<RetraSm> retraSm;
};

}  // namespace Retra
