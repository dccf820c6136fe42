#pragma once

namespace Orb {

// Time as seconds since the epoch of the framework clock.
using Seconds = double;

namespace System {
// The current time. It follows the activity manager's time source, so that a test running the
// loop on a clock it controls sees its own time here too.
[[nodiscard]] Seconds currentTime();
}  // namespace System

}  // namespace Orb
