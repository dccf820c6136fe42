#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace RetraTest {

// A small HTTP/1.1 server for tests, on a free port of 127.0.0.1 (or ::1), answering from its
// own threads so that the test's activity loop stays free. Routes map a path to a canned answer
// or to a handler that writes raw bytes (for faults, see FaultAnswers); every request received
// is recorded. Each connection carries one request, read by a thread of its own, so a handler
// that stalls or drips never holds up other connections.
//
// Destruction wakes every handler (pauseFor() returns false, waitUntilStopping() returns, and
// blocked reads and writes on the connections end) and joins its thread, so a handler that
// waits must wait through pauseFor() or waitUntilStopping(), never a bare sleep.
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

  // Writes whatever it likes on the connection's socket; the server closes it afterwards. Runs
  // on the connection's own thread.
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
  // Connections accepted so far.
  [[nodiscard]] size_t connections() const { return connections_.load(); }

  // For handlers: waits `duration`, or less when the server begins stopping; true when the
  // whole duration passed, false when the server is stopping and the handler should end.
  bool pauseFor(std::chrono::milliseconds duration);
  // For handlers: waits until the server begins stopping.
  void waitUntilStopping();

  // Writes all of `bytes` to a socket (blocking); false when the peer went away first.
  static bool sendAll(int socket, const std::string& bytes);
  // The bytes of a complete answer with Content-Length and "Connection: close".
  [[nodiscard]] static std::string bytesOf(const Answer& answer);

 private:
  struct Connection {
    int socket = -1;  // -1 once the connection's thread has closed it
    bool done = false;
    std::thread thread;
  };

  void serve();
  void handle(int socket);
  void joinFinished();

  bool ipv6_;
  int listener_ = -1;
  int wake_[2] = {-1, -1};  // written by the destructor to end serve()
  uint16_t port_ = 0;
  std::atomic<size_t> connections_{0};
  mutable std::mutex mutex_;
  std::condition_variable stopping_;
  bool isStopping_ = false;
  std::map<std::string, Handler> routes_;
  std::vector<Received> requests_;
  std::list<Connection> open_;  // connections whose threads are not joined yet
  std::thread thread_;
};

}  // namespace RetraTest
