#pragma once

#include <ares.h>

#include <cstddef>

#include "Dnsr/DnsrConfig.h"
#include "Orb/Clock.h"
#include "Orb/HashMap.h"
#include "Orb/Ptr.h"

namespace Dnsr::internal {

// A c-ares channel driven by the activity loop, with no thread and no blocking call: c-ares
// tells which sockets it wants watched (its socket-state callback) and each gets an
// `Orb::FileDescriptor`; the time of its next time-out (`ares_timeout`) arms a `Clock`
// observer. Readiness and time-outs are handed to `ares_process_fd`, which runs the query
// callbacks.
//
// Query callbacks run inside `ares_process_fd` (or, for queries that fail at once, inside the
// call that starts them); they must only record their result and must not call back into
// c-ares or destroy this object. After starting queries, call `timeoutUpdated()`.
class AresChannel {
 public:
  // A channel with the system's configuration (/etc/resolv.conf) overridden by `config`. A
  // channel that cannot be created raises the range exception.
  AresChannel(const DnsrConfig& config, const Orb::Ptr<Orb::Clock>& clock);
  // Destroys the channel: pending queries end with ARES_EDESTRUCTION, and every socket watch
  // and the time-out observer are released.
  ~AresChannel();
  AresChannel(const AresChannel&) = delete;
  AresChannel& operator=(const AresChannel&) = delete;

  [[nodiscard]] ares_channel channel() const noexcept { return channel_; }

  // Re-arms the time-out observer for c-ares's next time-out (or disarms it).
  void timeoutUpdated();
  // Ends every pending query at once with ARES_ECANCELLED; c-ares then closes its sockets.
  void queriesCancelled();

  // Off: the loop stops watching the sockets and the time-out observer stops firing, so
  // nothing runs; on: both resume where they were.
  void isActiveIs(bool active);
  [[nodiscard]] bool isActive() const noexcept { return active_; }

  // Name servers the channel asks.
  [[nodiscard]] size_t serverCount() const;
  // Sockets c-ares currently has open and watched.
  [[nodiscard]] size_t socketWatchCount() const noexcept { return sockets_.size(); }

 private:
  class SocketWatch;
  class TimeoutWatch;

  // A channel for `config`; `takeFailureAnswers`: a SERVFAIL or REFUSED answer ends the query
  // rather than sending it to the next server.
  ares_channel created(const DnsrConfig& config, bool takeFailureAnswers);
  static void onSocketState(void* data, ares_socket_t socket, int readable, int writable);
  void socketStateIs(ares_socket_t socket, bool readable, bool writable);
  // Lets c-ares read and write the sockets given (ARES_SOCKET_BAD for none) and handle its
  // time-outs, then re-plans the next time-out.
  void processed(ares_socket_t readable, ares_socket_t writable);

  ares_channel channel_ = nullptr;
  Orb::Ptr<TimeoutWatch> timeout_;
  Orb::HashMap<int, Orb::Ptr<SocketWatch>> sockets_;
  bool active_ = true;
};

}  // namespace Dnsr::internal
