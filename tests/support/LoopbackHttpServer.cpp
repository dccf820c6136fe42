#include "support/LoopbackHttpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace RetraTest {

namespace {

const char* reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 401:
      return "Unauthorized";
    case 404:
      return "Not Found";
    case 500:
      return "Internal Server Error";
    default:
      return "Status";
  }
}

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

// Reads one request (head and a Content-Length body); false when the peer closed early.
bool readRequest(int socket, LoopbackHttpServer::Received* out) {
  std::string data;
  char buffer[4096];
  size_t headEnd;
  while ((headEnd = data.find("\r\n\r\n")) == std::string::npos) {
    ssize_t n = ::recv(socket, buffer, sizeof buffer, 0);
    if (n <= 0) return false;
    data.append(buffer, size_t(n));
  }
  std::string head = data.substr(0, headEnd);
  std::string rest = data.substr(headEnd + 4);
  size_t lineEnd = head.find("\r\n");
  std::string requestLine = head.substr(0, lineEnd);
  size_t sp1 = requestLine.find(' '), sp2 = requestLine.rfind(' ');
  out->method = requestLine.substr(0, sp1);
  out->target = requestLine.substr(sp1 + 1, sp2 - sp1 - 1);
  size_t pos = lineEnd == std::string::npos ? head.size() : lineEnd + 2;
  while (pos < head.size()) {
    size_t end = head.find("\r\n", pos);
    if (end == std::string::npos) end = head.size();
    std::string line = head.substr(pos, end - pos);
    size_t colon = line.find(':');
    if (colon != std::string::npos) {
      size_t v = line.find_first_not_of(' ', colon + 1);
      out->headers[lower(line.substr(0, colon))] = v == std::string::npos ? "" : line.substr(v);
    }
    pos = end + 2;
  }
  size_t length = 0;
  if (auto it = out->headers.find("content-length"); it != out->headers.end()) {
    try {
      length = std::stoul(it->second);
    } catch (const std::exception&) {
      return false;
    }
  }
  if (auto it = out->headers.find("expect");
      it != out->headers.end() && lower(it->second) == "100-continue" && rest.size() < length) {
    LoopbackHttpServer::sendAll(socket, "HTTP/1.1 100 Continue\r\n\r\n");
  }
  while (rest.size() < length) {
    ssize_t n = ::recv(socket, buffer, sizeof buffer, 0);
    if (n <= 0) return false;
    rest.append(buffer, size_t(n));
  }
  out->body = rest.substr(0, length);
  return true;
}

}  // namespace

LoopbackHttpServer::LoopbackHttpServer(bool ipv6) : ipv6_(ipv6) {
  listener_ = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener_ < 0) throw std::runtime_error("socket failed");
  int one = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_storage address{};
  socklen_t length;
  if (ipv6) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&address);
    a->sin6_family = AF_INET6;
    a->sin6_addr = in6addr_loopback;
    length = sizeof *a;
  } else {
    auto* a = reinterpret_cast<sockaddr_in*>(&address);
    a->sin_family = AF_INET;
    a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    length = sizeof *a;
  }
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 128) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(listener_);
    throw std::runtime_error("cannot listen on loopback");
  }
  port_ = ntohs(ipv6 ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                     : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  if (::pipe2(wake_, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  thread_ = std::thread([this] { serve(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
  {
    std::lock_guard lock(mutex_);
    isStopping_ = true;
  }
  stopping_.notify_all();
  char byte = 0;
  (void)!::write(wake_[1], &byte, 1);
  thread_.join();
  {
    // Ends reads and writes that block on a peer; the threads close their sockets themselves.
    std::lock_guard lock(mutex_);
    for (auto& connection : open_) {
      if (connection.socket >= 0) ::shutdown(connection.socket, SHUT_RDWR);
    }
  }
  for (auto& connection : open_) connection.thread.join();
  ::close(listener_);
  ::close(wake_[0]);
  ::close(wake_[1]);
}

std::string LoopbackHttpServer::url(const std::string& path) const {
  return std::string(ipv6_ ? "http://[::1]:" : "http://127.0.0.1:") + std::to_string(port_) + path;
}

void LoopbackHttpServer::routeIs(const std::string& path, Answer answer) {
  routeIs(path, [bytes = bytesOf(answer)](int socket, const Received&) { sendAll(socket, bytes); });
}

std::string LoopbackHttpServer::bytesOf(const Answer& answer) {
  std::string out = "HTTP/1.1 " + std::to_string(answer.status) + " " + reason(answer.status) +
                    "\r\nContent-Length: " + std::to_string(answer.body.size()) + "\r\n";
  for (const auto& [name, value] : answer.headers) out += name + ": " + value + "\r\n";
  return out + "Connection: close\r\n\r\n" + answer.body;
}

void LoopbackHttpServer::routeIs(const std::string& path, Handler handler) {
  std::lock_guard lock(mutex_);
  routes_[path] = std::move(handler);
}

std::vector<LoopbackHttpServer::Received> LoopbackHttpServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

bool LoopbackHttpServer::pauseFor(std::chrono::milliseconds duration) {
  std::unique_lock lock(mutex_);
  return !stopping_.wait_for(lock, duration, [this] { return isStopping_; });
}

void LoopbackHttpServer::waitUntilStopping() {
  std::unique_lock lock(mutex_);
  stopping_.wait(lock, [this] { return isStopping_; });
}

bool LoopbackHttpServer::sendAll(int socket, const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    ssize_t n = ::send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += size_t(n);
  }
  return true;
}

// Each connection gets a thread of its own, joined once it has finished (here, as later
// connections arrive) or at destruction.
void LoopbackHttpServer::serve() {
  pollfd fds[2] = {{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
  while (true) {
    if (::poll(fds, 2, -1) < 0) continue;
    if (fds[1].revents) return;
    if (!(fds[0].revents & POLLIN)) continue;
    int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) continue;
    ++connections_;
    joinFinished();
    std::lock_guard lock(mutex_);
    Connection& connection = open_.emplace_back();
    connection.socket = socket;
    connection.thread = std::thread([this, &connection, socket] {
      try {
        handle(socket);
      } catch (...) {
        // A handler that throws only loses its own connection.
      }
      std::lock_guard lock(mutex_);
      ::close(socket);
      connection.socket = -1;
      connection.done = true;
    });
  }
}

void LoopbackHttpServer::joinFinished() {
  std::list<Connection> finished;
  {
    std::lock_guard lock(mutex_);
    for (auto it = open_.begin(); it != open_.end();) {
      auto next = std::next(it);
      if (it->done) finished.splice(finished.end(), open_, it);
      it = next;
    }
  }
  for (auto& connection : finished) connection.thread.join();
}

void LoopbackHttpServer::handle(int socket) {
  Received request;
  if (!readRequest(socket, &request)) return;
  Handler handler;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(request);
    std::string path = request.target.substr(0, request.target.find('?'));
    if (auto it = routes_.find(path); it != routes_.end()) handler = it->second;
  }
  if (handler) {
    handler(socket, request);
  } else {
    sendAll(socket, "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
  }
}

}  // namespace RetraTest
