#include "service/support/ServiceProcess.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "Retra/remote/WireProtocol.h"

namespace ServiceTest {

ServiceProcess::ServiceProcess(std::vector<std::string> extraArgs)
    : dir_("retrad"), socket_(dir_.path("retrad.sock")), args_(std::move(extraArgs)) {
  start();
}

ServiceProcess::~ServiceProcess() = default;

void ServiceProcess::start() {
  std::vector<std::string> argv{
      RETRAD_PROGRAM, "--socket", socket_, "--state", dir_.path("state/requests.db"),
      "--trace",      "Retrad/2"};
  argv.insert(argv.end(), args_.begin(), args_.end());
  // The service says it is ready the way it tells systemd: a datagram on $NOTIFY_SOCKET.
  const std::string notifyPath = dir_.path("notify-" + std::to_string(starts_ + 1));
  const int notify = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, notifyPath.c_str(), sizeof address.sun_path - 1);
  if (notify < 0 || ::bind(notify, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("cannot bind " + notifyPath);
  }
  ::setenv("NOTIFY_SOCKET", notifyPath.c_str(), 1);
  process_ = std::make_unique<RetraTest::ChildProcess>(
      argv, dir_.path("retrad-" + std::to_string(++starts_) + ".log"));
  ::unsetenv("NOTIFY_SOCKET");
  pollfd ready{notify, POLLIN, 0};
  char state[64] = {};
  const bool notified = ::poll(&ready, 1, 30000) == 1 &&
                        ::recv(notify, state, sizeof state - 1, 0) > 0 &&
                        std::string_view(state) == "READY=1";
  ::close(notify);
  if (!notified || !RawClient(socket_).handshake()) {
    throw std::runtime_error("retrad did not start: " + log());
  }
}

std::string ServiceProcess::log() const {
  std::string all;
  for (int i = 1; i <= starts_; ++i) {
    std::ifstream in(dir_.path("retrad-" + std::to_string(i) + ".log"));
    all.append(std::istreambuf_iterator<char>(in), {});
  }
  return all;
}

void ServiceProcess::killAndRestart() {
  process_->stop(SIGKILL);
  start();
}

uint64_t ServiceProcess::bytesWritten() const {
  std::ifstream io("/proc/" + std::to_string(process_->pid()) + "/io");
  std::string name;
  uint64_t value = 0;
  while (io >> name >> value) {
    if (name == "wchar:") return value;
  }
  return 0;
}

RawClient::RawClient(const std::string& socketPath) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const std::string error = std::strerror(errno);
    if (fd_ >= 0) ::close(fd_);
    throw std::runtime_error("cannot connect to " + socketPath + ": " + error);
  }
}

RawClient::~RawClient() {
  ::close(fd_);
}

void RawClient::sendBytes(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return;  // the service closed: the test looks at what it answered
    bytes.remove_prefix(size_t(n));
  }
}

void RawClient::sendFrame(std::string_view payload) {
  std::string frame;
  Retra::Wire::appendFrame(frame, payload);
  sendBytes(frame);
}

std::optional<Retra::Wire::Message> RawClient::next(double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    if (buffer_.size() >= 4) {
      const auto* h = reinterpret_cast<const unsigned char*>(buffer_.data());
      const size_t length = size_t(h[0]) << 24 | size_t(h[1]) << 16 | size_t(h[2]) << 8 | h[3];
      if (buffer_.size() >= 4 + length) {
        frame_ = buffer_.substr(4, length);
        buffer_.erase(0, 4 + length);
        return Retra::Wire::decodeMessage(frame_);
      }
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd p{fd_, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&p, 1, int(left.count())) <= 0) return std::nullopt;
    char chunk[65536];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) return std::nullopt;
    buffer_.append(chunk, size_t(n));
  }
}

std::optional<Retra::Wire::Message> RawClient::nextReply(double seconds) {
  for (;;) {
    auto message = next(seconds);
    if (!message || message->type == Retra::Wire::MessageType::reply) return message;
    if (message->type == Retra::Wire::MessageType::listing) {
      listing.insert(listing.end(), message->listing.begin(), message->listing.end());
    }
  }
}

std::optional<uint32_t> RawClient::handshake() {
  sendFrame(Retra::Wire::encodeHello("raw-test-client"));
  auto welcome = next();
  if (!welcome || welcome->type != Retra::Wire::MessageType::welcome) return std::nullopt;
  return welcome->uid;
}

}  // namespace ServiceTest
