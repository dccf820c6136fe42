#include "retrad/ReadinessNotice.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace Retrad {

bool notifyServiceManager(const std::string& state) {
  const char* target = std::getenv("NOTIFY_SOCKET");
  if (target == nullptr || *target == '\0') return true;
  const std::string path = target;
  ::unsetenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if ((path[0] != '/' && path[0] != '@') || path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.data(), path.size());
  if (path[0] == '@') address.sun_path[0] = '\0';
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const auto length = socklen_t(offsetof(sockaddr_un, sun_path) + path.size());
  const bool sent =
      ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address), length) == ssize_t(state.size());
  ::close(fd);
  return sent;
}

bool notifyReady() {
  return notifyServiceManager("READY=1");
}

}  // namespace Retrad
