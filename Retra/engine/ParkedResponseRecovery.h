#pragma once

#include <cstddef>
#include <unordered_set>

#include "Orb/Clock.h"
#include "Orb/HashMap.h"
#include "Orb/Ptr.h"
#include "Orb/Seconds.h"
#include "Retra/model/RequestKey.h"

namespace Retra {

class RetraSm;

// Restarts responses the engine has parked. Whenever a host's resolver record changes, the
// engine makes every response of that host ready for dispatch, whatever its state; a response
// whose fetch had already ended (its state machine released, as after a finished fetch or a
// failed first look-up) then sits in `stateDispatchReady` with nothing to dispatch it, and the
// refresh scan passes it by. A host keeps one of these beside its `Root`: every `grace` seconds
// it looks for responses ready for dispatch without a state machine and resets
// (`RetraSm::doResetRequest`) those that were parked at its previous look already, so the
// refresh scan takes them in again at once. It changes nothing else and notifies nobody.
//
// Ownership: the host holds the recovery; the recovery holds the engine. Dropping the last
// reference stops it. An engine that is not running (never started, or shut down) is left alone.
//
//   Orb::Ptr<Retra::Root> root = Orb::allocate<Retra::Root>("retra");
//   auto recovery = Retra::ParkedResponseRecovery::ParkedResponseRecoveryIs(root->retraSm());
//   Orb::activityManager()->run();
class ParkedResponseRecovery : public Orb::Clock::NotifieeConst {
 public:
  static constexpr Orb::Seconds defaultGrace = 2.0;

  // A recovery over `engine` that looks every `grace` seconds (at least 10 ms), starting now.
  [[nodiscard]] static Orb::Ptr<ParkedResponseRecovery> ParkedResponseRecoveryIs(
      const Orb::Ptr<RetraSm>& engine, Orb::Seconds grace = defaultGrace);

  ParkedResponseRecovery(const Orb::Ptr<RetraSm>& engine, Orb::Seconds grace);

  [[nodiscard]] Orb::Seconds grace() const noexcept { return grace_; }
  // How many responses it has reset so far.
  [[nodiscard]] size_t resets() const noexcept { return resets_; }

  void onTime() override;

 private:
  Orb::Ptr<RetraSm> engine_;
  Orb::Seconds grace_;
  using KeySet = std::unordered_set<RequestKey, Orb::KeyHasher<RequestKey>>;
  KeySet parked_;  // parked at the previous look
  size_t resets_ = 0;
};

}  // namespace Retra
