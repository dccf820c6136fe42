#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Orb/Clock.h"
#include "Orb/FileDescriptor.h"
#include "Orb/Ptr.h"
#include "metrics/Exposition.h"
#include "metrics/PageBuilder.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace RetraMetrics {

// The HTTP endpoint of the metrics: libmicrohttpd on the activity loop, with no thread of its
// own. MHD runs in epoll mode; its epoll descriptor is watched by the loop and MHD_run is called
// when it is readable and when MHD's own time-out (MHD_get_timeout) comes.
//
// Only `GET /metrics` (and HEAD) is served: 404 for another path, 405 for another method. A
// scrape takes a page from `pages` in the format its Accept header asks for; the connection is
// suspended while the page is written, `seriesPerTurn` series per loop turn, so that other
// sockets keep being served, and resumed to send it once complete.
//
//   RetraMetrics::MetricsServer server("127.0.0.1:9464", [&](Format format) {
//     return std::make_unique<PageBuilder>(format, book, gauges());
//   });
//
// The listening socket is bound in the constructor ("ADDR:PORT", an IPv6 address in brackets;
// port 0 picks a free one, see `port()`); a failure raises std::runtime_error naming the address
// and the cause. Destruction closes every connection, scrapes under way included.
class MetricsServer {
 public:
  using PageFactory = std::function<std::unique_ptr<PageBuilder>(Format)>;

  MetricsServer(const std::string& listen, PageFactory pages, size_t seriesPerTurn = 20000);
  ~MetricsServer();
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

  [[nodiscard]] uint16_t port() const noexcept { return port_; }

 private:
  class EpollWatch;
  class Wake;
  struct Scrape;
  struct Callbacks;  // MHD's, in terms of its own types

  // Answers a request (MHD_YES or MHD_NO), or starts a page for it and suspends it.
  int handleRequest(MHD_Connection* connection, const char* url, const char* method, void** state);
  void scrapeEnded(void** state);
  // Writes a slice of each page under way, then lets MHD work and plans the next wake-up.
  void run();

  PageFactory pages_;
  size_t seriesPerTurn_;
  int listenFd_ = -1;
  uint16_t port_ = 0;
  MHD_Daemon* daemon_ = nullptr;
  Orb::Ptr<Orb::FileDescriptor> epollFd_;
  Orb::Ptr<EpollWatch> epollWatch_;
  Orb::Ptr<Wake> wake_;
  std::vector<Scrape*> building_;
};

}  // namespace RetraMetrics
