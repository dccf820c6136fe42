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

// A small HTTP/1.1 server on a free port of 127.0.0.1, answering from its own threads (one per
// connection, one request each) so that the test's activity loop stays free. A route answers
// with fixed bytes, well-formed or not, or with a handler for answers that take their time;
// what nginx and httpbin do is left to them.
//
// Destruction wakes every handler (pauseFor() returns false, blocked reads and writes end) and
// joins its thread, so a handler that waits must wait through pauseFor(), never a bare sleep.
//
//   RetraTest::LoopbackHttpServer server;
//   server.routeIs("/hello", RetraTest::LoopbackHttpServer::answer(200, "hi"));
//   server.routeIs("/silent", server.silence());
class LoopbackHttpServer {
 public:
  // Writes what it likes on the socket, which is closed afterwards; `head` is the request's
  // request line and header lines.
  using Handler = std::function<void(int socket, const std::string& head)>;

  LoopbackHttpServer();
  ~LoopbackHttpServer();
  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

  [[nodiscard]] uint16_t port() const { return port_; }
  // "http://127.0.0.1:PORT" + path.
  [[nodiscard]] std::string url(const std::string& path = "/") const;

  // Routes match the path without its query; other paths get a 404.
  void routeIs(const std::string& path, std::string bytes);
  void routeIs(const std::string& path, Handler handler);

  // The heads of the requests received so far, in order.
  [[nodiscard]] std::vector<std::string> requests() const;
  [[nodiscard]] size_t connections() const { return connections_.load(); }

  // Waits `duration`, or less when the server begins stopping: true when it all passed.
  bool pauseFor(std::chrono::milliseconds duration);

  // A complete answer with Content-Length and "Connection: close"; `headers` are whole lines.
  [[nodiscard]] static std::string answer(int status, const std::string& body,
                                          const std::string& headers = "");
  // Writes all of `bytes`; false when the peer went away first.
  static bool send(int socket, const std::string& bytes);
  // Binds a TCP socket to `port` (0: any) of 127.0.0.1 (or ::1), closes it and returns the
  // port bound, 0 when it was taken: a port free when asked.
  [[nodiscard]] static uint16_t freePort(bool ipv6 = false, uint16_t port = 0);
  // A URL on a port nothing listens on: connections are refused.
  [[nodiscard]] static std::string refusingUrl(const std::string& path = "/");

  // Faults. Reads the request and never answers.
  [[nodiscard]] Handler silence();
  // Writes `atOnce`, then `dripped` one byte every `interval`.
  [[nodiscard]] Handler drip(std::string atOnce, std::string dripped,
                             std::chrono::milliseconds interval);
  // Never answers; adds one to `closedByClient` when the client closes the connection.
  [[nodiscard]] Handler holdUntilClientCloses(std::atomic<size_t>& closedByClient);
  // 302 to "?left=N-1" while the query "left=N" is above 0, then 200 "end".
  [[nodiscard]] static Handler redirectCountdown();

 private:
  struct Connection {
    int socket;
    std::thread thread;
  };

  void serve();
  void handle(Connection& connection);

  int listener_ = -1;
  uint16_t port_ = 0;
  std::atomic<size_t> connections_{0};
  mutable std::mutex mutex_;
  std::condition_variable stopping_;
  bool isStopping_ = false;
  std::map<std::string, Handler> routes_;
  std::vector<std::string> requests_;
  std::list<Connection> open_;
  std::thread thread_;
};

}  // namespace RetraTest
