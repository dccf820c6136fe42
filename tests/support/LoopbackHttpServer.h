#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace RetraTest {

// A small HTTP/1.1 server for tests, on a free port of 127.0.0.1 (or ::1), answering from its
// own thread so that the test's activity loop stays free. Routes map a path to a canned answer
// or to a handler that writes raw bytes (for faults); every request received is recorded.
//
//   RetraTest::LoopbackHttpServer server;
//   server.routeIs("/hello", {200, {{"Content-Type", "text/plain"}}, "hi"});
//   curl ... server.url("/hello") ...
//   EXPECT_EQ(server.requests().at(0).method, "GET");
class LoopbackHttpServer {
 public:
  struct Answer {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
  };

  struct Received {
    std::string method;
    std::string target;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
  };

  // Writes whatever it likes on the connection's socket; the server closes it afterwards.
  using Handler = std::function<void(int socket, const Received& request)>;

  explicit LoopbackHttpServer(bool ipv6 = false);
  ~LoopbackHttpServer();
  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

  [[nodiscard]] uint16_t port() const { return port_; }
  // "http://127.0.0.1:PORT" + path (or "http://[::1]:PORT" + path).
  [[nodiscard]] std::string url(const std::string& path = "/") const;

  void routeIs(const std::string& path, Answer answer);
  void routeIs(const std::string& path, Handler handler);

  [[nodiscard]] std::vector<Received> requests() const;
  [[nodiscard]] size_t connections() const { return connections_.load(); }

  // Writes all of `bytes` to a socket (blocking), ignoring a peer that went away.
  static void sendAll(int socket, const std::string& bytes);

 private:
  void serve();
  void handle(int socket);

  bool ipv6_;
  int listener_ = -1;
  int wake_[2] = {-1, -1};  // written by the destructor to end serve()
  uint16_t port_ = 0;
  std::atomic<size_t> connections_{0};
  mutable std::mutex mutex_;
  std::map<std::string, Handler> routes_;
  std::vector<Received> requests_;
  std::thread thread_;
};

}  // namespace RetraTest
