#include "metrics/MetricsServer.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "Orb/ActivityManager.h"

namespace RetraMetrics {
namespace {

[[noreturn]] void fail(const std::string& listen, const std::string& what) {
  throw std::runtime_error("cannot serve metrics on " + listen + ": " + what);
}

// Binds and listens on "ADDR:PORT" ("[ADDR]:PORT" for IPv6); returns the socket.
int listenOn(const std::string& listen) {
  const size_t colon = listen.rfind(':');
  if (colon == std::string::npos || colon == 0) fail(listen, "expected ADDR:PORT");
  std::string host = listen.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  addrinfo* found = nullptr;
  if (const int status = ::getaddrinfo(host.c_str(), listen.c_str() + colon + 1, &hints, &found);
      status != 0) {
    fail(listen, ::gai_strerror(status));
  }
  const int fd = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  if (fd >= 0) (void)::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const bool bound =
      fd >= 0 && ::bind(fd, found->ai_addr, found->ai_addrlen) == 0 && ::listen(fd, SOMAXCONN) == 0;
  const int error = errno;
  ::freeaddrinfo(found);
  if (!bound) {
    if (fd >= 0) ::close(fd);
    fail(listen, std::strerror(error));
  }
  return fd;
}

uint16_t portOf(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
  return ntohs(address.ss_family == AF_INET6
                   ? reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port
                   : reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

MHD_Result answer(MHD_Connection* connection, unsigned status, const char* text,
                  const char* allow = nullptr) {
  MHD_Response* response = MHD_create_response_from_buffer(
      std::strlen(text), const_cast<char*>(text), MHD_RESPMEM_PERSISTENT);
  if (!response) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain; charset=utf-8");
  if (allow) MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, allow);
  const MHD_Result queued = MHD_queue_response(connection, status, response);
  MHD_destroy_response(response);
  return queued;
}

}  // namespace

struct MetricsServer::Scrape {
  MHD_Connection* connection = nullptr;
  std::unique_ptr<PageBuilder> page;
  bool suspended = false;
};

struct MetricsServer::Callbacks {
  static MHD_Result onRequest(void* server, MHD_Connection* connection, const char* url,
                              const char* method, const char*, const char*, size_t*, void** state) {
    return static_cast<MHD_Result>(
        static_cast<MetricsServer*>(server)->handleRequest(connection, url, method, state));
  }
  static void onCompleted(void* server, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
    static_cast<MetricsServer*>(server)->scrapeEnded(state);
  }
};

class MetricsServer::EpollWatch : public Orb::FileDescriptor::NotifieeConst {
 public:
  explicit EpollWatch(MetricsServer* server) : server_(server) {}
  void onReadableCount() override { server_->run(); }

 private:
  MetricsServer* server_;
};

class MetricsServer::Wake : public Orb::Clock::NotifieeConst {
 public:
  explicit Wake(MetricsServer* server) : server_(server) {}
  void onTime() override { server_->run(); }

 private:
  MetricsServer* server_;
};

MetricsServer::MetricsServer(const std::string& listen, PageFactory pages, size_t seriesPerTurn)
    : pages_(std::move(pages)), seriesPerTurn_(std::max<size_t>(seriesPerTurn, 1)) {
  listenFd_ = listenOn(listen);
  port_ = portOf(listenFd_);
  daemon_ = MHD_start_daemon(
      MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, &Callbacks::onRequest, this,
      MHD_OPTION_LISTEN_SOCKET, listenFd_, MHD_OPTION_NOTIFY_COMPLETED, &Callbacks::onCompleted,
      this, MHD_OPTION_CONNECTION_TIMEOUT, 30u, MHD_OPTION_CONNECTION_LIMIT, 64u, MHD_OPTION_END);
  if (!daemon_) {
    ::close(listenFd_);
    fail(listen, "libmicrohttpd did not start");
  }
  const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD);
  epollFd_ = Orb::allocate<Orb::FileDescriptor>(Orb::Name("retraMetricsEpoll"));
  epollFd_->descriptorIs(info->epoll_fd);
  epollFd_->notifyOnReadableIs(true);
  epollWatch_ = Orb::allocate<EpollWatch>(this);
  epollWatch_->notifierIs(epollFd_);
  wake_ = Orb::allocate<Wake>(this);
  wake_->notifierIs(Orb::activityManager()->clock());
  run();
}

MetricsServer::~MetricsServer() {
  wake_->notifierIs(nullptr);
  epollWatch_->notifierIs(nullptr);
  epollFd_->descriptorIs(-1);
  // MHD closes no suspended connection: they are resumed first, and freed as MHD stops.
  for (Scrape* scrape : building_) {
    if (scrape->suspended) MHD_resume_connection(scrape->connection);
    scrape->suspended = false;
  }
  building_.clear();
  MHD_stop_daemon(daemon_);
  ::close(listenFd_);
}

int MetricsServer::handleRequest(MHD_Connection* connection, const char* url, const char* method,
                                 void** state) {
  if (auto* scrape = static_cast<Scrape*>(*state)) {
    // Resumed with the page complete: it goes out as it is, without a copy.
    auto* body = new std::string(std::move(scrape->page->page()));
    MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
        body->size(), body->data(), [](void* text) { delete static_cast<std::string*>(text); },
        body);
    if (!response) {
      delete body;
      return MHD_NO;
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE,
                            contentTypeOf(scrape->page->format()));
    const MHD_Result queued = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return queued;
  }
  if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0 &&
      std::strcmp(method, MHD_HTTP_METHOD_HEAD) != 0) {
    return answer(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "Only GET and HEAD.\n", "GET, HEAD");
  }
  if (std::strcmp(url, "/metrics") != 0) {
    return answer(connection, MHD_HTTP_NOT_FOUND, "Metrics are at /metrics.\n");
  }
  const char* accept =
      MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_ACCEPT);
  auto* scrape = new Scrape{connection, pages_(formatFor(accept ? accept : "")), true};
  *state = scrape;
  building_.push_back(scrape);
  MHD_suspend_connection(connection);
  wake_->timeMinIs(Orb::activityManager()->currentTime());
  return MHD_YES;
}

void MetricsServer::scrapeEnded(void** state) {
  auto* scrape = static_cast<Scrape*>(*state);
  if (!scrape) return;
  std::erase(building_, scrape);
  delete scrape;
  *state = nullptr;
}

void MetricsServer::run() {
  // Each page under way gets a slice; those complete go back to MHD to be sent.
  for (size_t i = 0; i < building_.size();) {
    Scrape* scrape = building_[i];
    if (scrape->page->step(seriesPerTurn_ / building_.size() + 1)) {
      building_.erase(building_.begin() + long(i));
      scrape->suspended = false;
      MHD_resume_connection(scrape->connection);
    } else {
      ++i;
    }
  }
  MHD_run(daemon_);
  MHD_UNSIGNED_LONG_LONG milliseconds = 0;
  const Orb::Seconds now = Orb::activityManager()->currentTime();
  if (!building_.empty()) {
    wake_->timeMinIs(now);
  } else if (MHD_get_timeout(daemon_, &milliseconds) == MHD_YES) {
    wake_->timeMinIs(now + double(milliseconds) / 1000.0);
  } else {
    wake_->timeMinIs(Orb::Clock::never);
  }
}

}  // namespace RetraMetrics
