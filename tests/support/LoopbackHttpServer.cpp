#include "support/LoopbackHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace RetraTest {

LoopbackHttpServer::LoopbackHttpServer() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 256) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("cannot listen on loopback");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
  {
    std::lock_guard lock(mutex_);
    isStopping_ = true;
    // Ends reads and writes that block on a peer; the threads close their sockets themselves.
    for (auto& connection : open_) {
      if (connection.socket >= 0) ::shutdown(connection.socket, SHUT_RDWR);
    }
  }
  stopping_.notify_all();
  ::shutdown(listener_, SHUT_RDWR);  // ends the accept() that serve() waits in
  thread_.join();
  for (auto& connection : open_) connection.thread.join();
  ::close(listener_);
}

std::string LoopbackHttpServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void LoopbackHttpServer::routeIs(const std::string& path, std::string bytes) {
  routeIs(path,
          [bytes = std::move(bytes)](int socket, const std::string&) { send(socket, bytes); });
}

void LoopbackHttpServer::routeIs(const std::string& path, Handler handler) {
  std::lock_guard lock(mutex_);
  routes_[path] = std::move(handler);
}

std::vector<std::string> LoopbackHttpServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

bool LoopbackHttpServer::pauseFor(std::chrono::milliseconds duration) {
  std::unique_lock lock(mutex_);
  return !stopping_.wait_for(lock, duration, [this] { return isStopping_; });
}

std::string LoopbackHttpServer::answer(int status, const std::string& body,
                                       const std::string& headers) {
  return "HTTP/1.1 " + std::to_string(status) +
         " Status\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + headers +
         "Connection: close\r\n\r\n" + body;
}

bool LoopbackHttpServer::send(int socket, const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = ::send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += size_t(n);
  }
  return true;
}

uint16_t LoopbackHttpServer::freePort(bool ipv6, uint16_t port) {
  const int s = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in6 address{};  // its port sits where sockaddr_in has it
  address.sin6_family = ipv6 ? AF_INET6 : AF_INET;
  address.sin6_port = htons(port);
  if (ipv6) {
    address.sin6_addr = in6addr_loopback;
  } else {
    reinterpret_cast<sockaddr_in*>(&address)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }
  socklen_t length = ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  const bool bound = ::bind(s, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                     ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  ::close(s);
  return bound ? ntohs(address.sin6_port) : 0;
}

std::string LoopbackHttpServer::refusingUrl(const std::string& path) {
  return "http://127.0.0.1:" + std::to_string(freePort()) + path;
}

LoopbackHttpServer::Handler LoopbackHttpServer::silence() {
  return [this](int, const std::string&) { pauseFor(std::chrono::hours(1)); };
}

LoopbackHttpServer::Handler LoopbackHttpServer::drip(std::string atOnce, std::string dripped,
                                                     std::chrono::milliseconds interval) {
  return [this, atOnce, dripped, interval](int socket, const std::string&) {
    if (!send(socket, atOnce)) return;
    for (const char byte : dripped) {
      if (!pauseFor(interval) || !send(socket, std::string(1, byte))) return;
    }
  };
}

LoopbackHttpServer::Handler LoopbackHttpServer::holdUntilClientCloses(
    std::atomic<size_t>& closedByClient) {
  return [this, &closedByClient](int socket, const std::string&) {
    char buffer[512];
    // The server's own shutdown of the socket also reads as an end: it is not the client's.
    while (pauseFor(std::chrono::milliseconds(0))) {
      pollfd watch{socket, POLLIN, 0};
      if (::poll(&watch, 1, 50) <= 0) continue;
      if (::recv(socket, buffer, sizeof buffer, 0) <= 0) {
        if (pauseFor(std::chrono::milliseconds(0))) ++closedByClient;
        return;
      }
    }
  };
}

LoopbackHttpServer::Handler LoopbackHttpServer::redirectCountdown() {
  return [](int socket, const std::string& head) {
    const size_t query = head.find("?left=");
    const long left = query == std::string::npos ? 0 : std::atol(head.c_str() + query + 6);
    const std::string path = head.substr(4, head.find('?') - 4);
    send(socket,
         left <= 0
             ? answer(200, "end")
             : answer(302, "", "Location: " + path + "?left=" + std::to_string(left - 1) + "\r\n"));
  };
}

void LoopbackHttpServer::serve() {
  for (;;) {
    const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    std::lock_guard lock(mutex_);
    if (isStopping_) {
      if (socket >= 0) ::close(socket);
      return;
    }
    if (socket < 0) continue;
    ++connections_;
    Connection& connection = open_.emplace_back(Connection{socket, {}});
    connection.thread = std::thread([this, &connection] { handle(connection); });
  }
}

void LoopbackHttpServer::handle(Connection& connection) {
  std::string head;
  char buffer[4096];
  size_t end;
  while ((end = head.find("\r\n\r\n")) == std::string::npos) {
    const ssize_t n = ::recv(connection.socket, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    head.append(buffer, size_t(n));
  }
  Handler handler;
  if (end != std::string::npos) {
    head.resize(end);
    const size_t start = head.find(' ') + 1;
    const std::string path = head.substr(start, head.find_first_of("? ", start) - start);
    std::lock_guard lock(mutex_);
    requests_.push_back(head);
    auto it = routes_.find(path);
    handler = it != routes_.end() ? it->second
                                  : [](int s, const std::string&) { send(s, answer(404, "")); };
  }
  if (handler) handler(connection.socket, head);
  std::lock_guard lock(mutex_);
  ::close(connection.socket);
  connection.socket = -1;
}

}  // namespace RetraTest
