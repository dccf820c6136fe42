#include "retrad/ListenSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "retrad/ServiceTrace.h"

namespace Retrad {
namespace {

constexpr int kSystemdFirstDescriptor = 3;

// The descriptor systemd handed this process, or -1.
int systemdSocket() {
  const char* pid = std::getenv("LISTEN_PID");
  const char* fds = std::getenv("LISTEN_FDS");
  if (!pid || !fds || std::atol(pid) != long(::getpid()) || std::atoi(fds) < 1) return -1;
  ::unsetenv("LISTEN_PID");
  ::unsetenv("LISTEN_FDS");
  ::unsetenv("LISTEN_FDNAMES");
  return kSystemdFirstDescriptor;
}

[[noreturn]] void fail(const std::string& path, const char* what) {
  throw std::runtime_error("cannot listen on " + path + ": " + what + ": " + std::strerror(errno));
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    fail(path, "path");
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

// Whether a service answers at `path`.
bool someoneListens(const sockaddr_un& address) {
  const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool listening = probe >= 0 && ::connect(probe, reinterpret_cast<const sockaddr*>(&address),
                                                 sizeof address) == 0;
  if (probe >= 0) ::close(probe);
  return listening;
}

}  // namespace

class ListenSocket::Watch : public Orb::FileDescriptor::NotifieeConst {
 public:
  explicit Watch(ListenSocket* socket) : socket_(socket) {}
  void onReadableCount() override { socket_->handleReadable(); }

 private:
  ListenSocket* socket_;
};

ListenSocket::ListenSocket(const std::string& path, bool worldConnectable,
                           std::function<void(int)> onAccept)
    : path_(path), onAccept_(std::move(onAccept)) {
  descriptor_ = systemdSocket();
  fromSystemd_ = descriptor_ >= 0;
  if (!fromSystemd_) {
    const sockaddr_un address = addressOf(path);
    const std::filesystem::path dir = std::filesystem::path(path).parent_path();
    if (!dir.empty() && !std::filesystem::exists(dir)) {
      std::filesystem::create_directories(dir);
      ::chmod(dir.c_str(), worldConnectable ? 0755 : 0700);
    }
    if (someoneListens(address)) {
      errno = EADDRINUSE;
      fail(path, "a service is running there already");
    }
    ::unlink(path.c_str());
    descriptor_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor_ < 0) fail(path, "socket");
    // The socket is born with the final rights: no moment in which others could connect.
    const mode_t mask = ::umask(worldConnectable ? 0111 : 0177);
    const int bound =
        ::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::umask(mask);
    if (bound != 0) {
      ::close(descriptor_);
      fail(path, "bind");
    }
    if (::listen(descriptor_, SOMAXCONN) != 0) {
      ::close(descriptor_);
      ::unlink(path.c_str());
      fail(path, "listen");
    }
  }
  fd_ = Orb::allocate<Orb::FileDescriptor>(Orb::Name("retradListen"));
  fd_->descriptorIs(descriptor_);
  fd_->nonBlockingIs(true);
  fd_->notifyOnReadableIs(true);
  watch_ = Orb::allocate<Watch>(this);
  watch_->notifierIs(fd_);
}

ListenSocket::~ListenSocket() {
  watch_->notifierIs(nullptr);
  fd_->notifyOnReadableIs(false);
  fd_->descriptorIs(-1);
  ::close(descriptor_);
  if (!fromSystemd_) ::unlink(path_.c_str());
}

void ListenSocket::handleReadable() {
  // A bounded number per turn, so a storm of connections cannot hold the loop.
  for (int i = 0; i < 256; ++i) {
    const int fd = ::accept4(descriptor_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      onAccept_(fd);
      continue;
    }
    if (errno == EINTR || errno == ECONNABORTED) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      RETRAD_TRACE(1, "accept failed: " << std::strerror(errno));
    }
    return;
  }
}

}  // namespace Retrad
