#include "Orb/PtrInterface.h"

namespace Orb {

void threadSafePointersIs(bool on) {
  internal::threadSafePointersOn.store(on, std::memory_order_release);
}

}  // namespace Orb
