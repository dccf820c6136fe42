#pragma once

#include <cstdint>

#include "Orb/Attribute.h"
#include "Orb/Entity.h"
#include "Orb/Name.h"
#include "Orb/Notifiee.h"
#include "Orb/TypeNode.h"

// The attributes of `RequestCounter`, in declaration order (numbered from 258).
#define RETRA_REQUEST_COUNTER_ATTRIBUTES(X)                                                  \
  X(COUNTER, numConnect, uint32_t, numConnectIs, numConnectInc, onNumConnect, 0)             \
  X(COUNTER, numRedirect, uint32_t, numRedirectIs, numRedirectInc, onNumRedirect, 0)         \
  X(COUNTER, numFinish, uint32_t, numFinishIs, numFinishInc, onNumFinish, 0)                 \
  X(SCALAR, speedDownload, double, speedDownloadIs, onSpeedDownload, 0.0)                    \
  X(SCALAR, speedUpload, double, speedUploadIs, onSpeedUpload, 0.0)                          \
  X(COUNTER, bytesDownload, uint64_t, bytesDownloadIs, bytesDownloadInc, onBytesDownload, 0) \
  X(COUNTER, bytesUpload, uint64_t, bytesUploadIs, bytesUploadInc, onBytesUpload, 0)         \
  X(COUNTER, bytesHeaderDownload, uint64_t, bytesHeaderDownloadIs, bytesHeaderDownloadInc,   \
    onBytesHeaderDownload, 0)                                                                \
  X(COUNTER, bytesRequestUpload, uint64_t, bytesRequestUploadIs, bytesRequestUploadInc,      \
    onBytesRequestUpload, 0)

namespace Retra {

// Transfer statistics of one response, accumulated over every fetch of its request, refreshes
// included (entity type "Retra::RequestCounter"). It is the child "counter" of a `Response`,
// created by `Response::counterIs()` and written by the engine after each transfer.
//
// Counts and byte totals grow through their `...Inc` adders (unsigned arithmetic wraps: 64-bit
// totals wrap at 2^64); the speeds hold the last transfer's average in bytes per second and are
// set, not summed. Every setter and adder calls the attribute's callback only when the stored
// value really changes, so adding zero is silent. Everything starts at zero.
//
//   auto counter = response->counterIs();
//   counter->bytesDownloadInc(100);
//   counter->bytesDownloadInc(50);         // bytesDownload() == 150
//   counter->speedDownloadIs(2048.0);
class RequestCounter : public Orb::Entity {
 public:
  class NotifieeConst : public Orb::BaseNotifiee<RequestCounter> {
   public:
    RETRA_REQUEST_COUNTER_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, RETRA_REQUEST_COUNTER_ATTRIBUTES);

  explicit RequestCounter(const Orb::Name& name = "counter") : Orb::Entity(name) {}

  RETRA_REQUEST_COUNTER_ATTRIBUTES(ORB_ENTITY_ACCESSORS)
  // Each stored attribute with its getter and mutator, for streaming to other processes.
  ORB_ENTITY_REFLECTION(RequestCounter, RETRA_REQUEST_COUNTER_ATTRIBUTES)

  [[nodiscard]] static const Orb::TypeNode* staticTypeNode();
  [[nodiscard]] const Orb::TypeNode* typeNode() const override { return staticTypeNode(); }

 protected:
  ~RequestCounter() override = default;

 private:
  RETRA_REQUEST_COUNTER_ATTRIBUTES(ORB_ENTITY_MEMBERS)
};

}  // namespace Retra
