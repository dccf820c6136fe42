#pragma once

#include <functional>
#include <string>

#include "Orb/FileDescriptor.h"
#include "Orb/Ptr.h"

namespace Retrad {

// The service's listening Unix stream socket, on the activity loop: each connection accepted is
// handed to `onAccept` (which owns the descriptor from then on).
//
// The socket is the one systemd passed (LISTEN_FDS=1 for this process: descriptor 3, used as
// it is), or one bound at `path`: its directory is created (0700 for a per-user instance, 0755
// for a machine-wide one) and the socket made 0600, or 0666 when `worldConnectable` (isolation
// then comes from the peer's uid). A socket file nobody listens on any more is replaced; one a
// running service listens on is an error.
//
// Failures raise std::runtime_error naming the path and the cause.
class ListenSocket {
 public:
  ListenSocket(const std::string& path, bool worldConnectable, std::function<void(int)> onAccept);
  ~ListenSocket();
  ListenSocket(const ListenSocket&) = delete;
  ListenSocket& operator=(const ListenSocket&) = delete;

  [[nodiscard]] bool fromSystemd() const noexcept { return fromSystemd_; }

 private:
  class Watch;
  void handleReadable();

  std::string path_;
  int descriptor_ = -1;
  bool fromSystemd_ = false;
  std::function<void(int)> onAccept_;
  Orb::Ptr<Orb::FileDescriptor> fd_;
  Orb::Ptr<Watch> watch_;
};

}  // namespace Retrad
