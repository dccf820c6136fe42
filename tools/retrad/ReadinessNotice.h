#pragma once

#include <string>

namespace Retrad {

// Tells the service manager the service is ready ("READY=1"), for `Type=notify` units: one
// datagram to $NOTIFY_SOCKET (a path, or an abstract name written with a leading '@'), as
// sd_notify(3) does, without linking libsystemd. Does nothing when the variable is unset;
// unsets it so children do not inherit it. Returns false when the variable is set but the notice
// could not be sent.
bool notifyReady();

// The same with any state text ("READY=1", "STOPPING=1", ...).
bool notifyServiceManager(const std::string& state);

}  // namespace Retrad
