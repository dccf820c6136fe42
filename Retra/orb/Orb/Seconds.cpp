#include "Orb/Seconds.h"

#include "Orb/ActivityManager.h"

namespace Orb::System {

Seconds currentTime() {
  return activityManager()->currentTime();
}

}  // namespace Orb::System
