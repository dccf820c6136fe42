#include "baseline/CurlBaselineHost.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "common/BenchPlan.h"

namespace RetraBench {
namespace {

// The values the library's dispatch uses.
constexpr const char* kUserAgent = "Mozilla/5.0 Retra/1.0.0";
constexpr long kMaxRedirects = 64;
// HTTP, HTTPS, FTP, FTPS, SCP and SFTP.
constexpr long kAllowedProtocols = CURLPROTO_HTTP | CURLPROTO_HTTPS | CURLPROTO_FTP |
                                   CURLPROTO_FTPS | CURLPROTO_SCP | CURLPROTO_SFTP;
// Beyond the transfers' own limit, the program waits this long before it gives up.
constexpr double kGraceSeconds = 30;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void protocolsLimited(CURL* easy) {
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS, kAllowedProtocols);
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS, kAllowedProtocols);
}
#pragma GCC diagnostic pop

bool isAddressLiteral(const std::string& host) {
  unsigned char address[16];
  std::string bare = host;
  if (bare.size() > 2 && bare.front() == '[' && bare.back() == ']') {
    bare = bare.substr(1, bare.size() - 2);
  }
  return ::inet_pton(AF_INET, bare.c_str(), address) == 1 ||
         ::inet_pton(AF_INET6, bare.c_str(), address) == 1;
}

std::string partOf(CURLU* url, CURLUPart part, unsigned flags) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, flags) != CURLUE_OK || !text) return {};
  std::string result(text);
  curl_free(text);
  return result;
}

}  // namespace

CurlBaselineHost::CurlBaselineHost(const BenchOptions& options)
    : options_(options), tally_(options) {
  report_.program = options.program;
  report_.requests = options.count;
  report_.kept = options.keep;
}

CurlBaselineHost::~CurlBaselineHost() {
  for (auto& [host, list] : pinned_) curl_slist_free_all(list);
}

int CurlBaselineHost::run() {
  start();
  writeRequests();
  (void)uv_run(&loop_, UV_RUN_DEFAULT);
  if (gaveUp_) {
    std::cerr << options_.program << ": " << options_.count - tally_.finished()
              << " requests did not finish in time\n";
    lastFinish_ = monotonicSeconds();
  }
  report_.seconds = lastFinish_ - firstWrite_;
  report_.failures = tally_.failures() + (options_.count - tally_.finished());
  report_.bytes = tally_.bytes();
  if (!options_.keep) stop();
  return finishRun(options_, tally_, report_);
}

void CurlBaselineHost::start() {
  const double begin = monotonicSeconds();
  if (!options_.outputDir.empty()) std::filesystem::create_directories(options_.outputDir);
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
    throw std::runtime_error("curl_global_init failed");
  }
  if (uv_loop_init(&loop_) != 0) throw std::runtime_error("uv_loop_init failed");
  uv_timer_init(&loop_, &timer_);
  timer_.data = this;
  uv_timer_init(&loop_, &giveUp_);
  giveUp_.data = this;
  multi_ = curl_multi_init();
  if (!multi_) throw std::runtime_error("curl_multi_init failed");
  curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, 4L);
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING, 0L);
  curl_multi_setopt(multi_, CURLMOPT_MAX_TOTAL_CONNECTIONS, 100L);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, onSocket);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, onTimer);
  curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
  transfers_.resize(options_.count);  // never resized again: libcurl keeps their addresses
  report_.startSeconds = monotonicSeconds() - begin;
}

void CurlBaselineHost::writeRequests() {
  firstWrite_ = monotonicSeconds();
  const auto limitMs = static_cast<uint64_t>((options_.timeoutSeconds + kGraceSeconds) * 1000);
  uv_timer_start(&giveUp_, onGiveUp, limitMs, 0);
  for (size_t i = 0; i < options_.count; ++i) {
    Transfer& transfer = transfers_[i];
    transfer.host = this;
    transfer.index = i;
    transfer.easy = curl_easy_init();
    if (!transfer.easy) {
      tally_.record(Outcome{i, 0, false, "curl_easy_init failed", 0, -1});
      continue;
    }
    configure(transfer, requestUrl(options_, i));
    ++running_;
  }
  addWaiting();
  if (running_ == 0) {
    lastFinish_ = monotonicSeconds();
    uv_timer_stop(&giveUp_);
  }
}

// Hands configured transfers to the multi handle: all of them, or with --window as many as
// keep that many in it.
void CurlBaselineHost::addWaiting() {
  for (; nextToAdd_ < transfers_.size(); ++nextToAdd_) {
    if (options_.window != 0 && inMulti_ >= options_.window) return;
    Transfer& transfer = transfers_[nextToAdd_];
    if (!transfer.easy) continue;
    if (curl_multi_add_handle(multi_, transfer.easy) != CURLM_OK) {
      tally_.record(Outcome{transfer.index, 0, false, "curl_multi_add_handle failed", 0, -1});
      curl_easy_cleanup(transfer.easy);
      transfer.easy = nullptr;
      --running_;
      continue;
    }
    ++inMulti_;
  }
}

// The library's dispatch options for a GET with default settings, in its order.
void CurlBaselineHost::configure(Transfer& transfer, const std::string& url) {
  CURL* easy = transfer.easy;
  if (curl_slist* pinned = pinnedAddresses(url)) curl_easy_setopt(easy, CURLOPT_RESOLVE, pinned);
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(easy, CURLOPT_HEADER, 0L);
  curl_easy_setopt(easy, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(options_.timeoutSeconds));
  curl_easy_setopt(easy, CURLOPT_TIMEOUT, static_cast<long>(options_.timeoutSeconds));
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
  protocolsLimited(easy);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_USERAGENT, kUserAgent);
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
}

// Like the library, a named host is resolved once and pinned for libcurl, IPv6 addresses first,
// so that libcurl looks nothing up itself. Address literals need no pinning.
curl_slist* CurlBaselineHost::pinnedAddresses(const std::string& url) {
  CURLU* parsed = curl_url();
  std::string host;
  std::string port;
  if (curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK) {
    host = partOf(parsed, CURLUPART_HOST, 0);
    port = partOf(parsed, CURLUPART_PORT, CURLU_DEFAULT_PORT);
  }
  curl_url_cleanup(parsed);
  if (host.empty() || port.empty() || isAddressLiteral(host)) return nullptr;
  const std::string hostPort = host + ":" + port;
  if (auto it = pinned_.find(hostPort); it != pinned_.end()) return it->second;

  curl_slist* list = curl_slist_append(nullptr, ("-" + hostPort).c_str());
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) == 0) {
    for (int family : {AF_INET6, AF_INET}) {
      for (addrinfo* a = found; a; a = a->ai_next) {
        if (a->ai_family != family) continue;
        char text[INET6_ADDRSTRLEN] = {};
        const void* address =
            family == AF_INET6
                ? static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(a->ai_addr)->sin6_addr)
                : static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(a->ai_addr)->sin_addr);
        if (!::inet_ntop(family, address, text, sizeof text)) continue;
        const std::string entry = family == AF_INET6 ? "[" + std::string(text) + "]" : text;
        list = curl_slist_append(list, (hostPort + ":" + entry).c_str());
      }
    }
    ::freeaddrinfo(found);
  }
  pinned_.emplace(hostPort, list);
  return list;
}

// ---- libcurl's callbacks

size_t CurlBaselineHost::onHeader(char*, size_t size, size_t count, void*) {
  return size * count;
}

size_t CurlBaselineHost::onBody(char* data, size_t size, size_t count, void* transferPtr) {
  auto* transfer = static_cast<Transfer*>(transferPtr);
  const size_t n = size * count;
  if (transfer->host->options_.outputDir.empty()) {
    transfer->body.append(data, n);
    return n;
  }
  if (!transfer->file) {
    const std::string path = outputPath(transfer->host->options_, transfer->index);
    transfer->file = std::fopen(path.c_str(), "wb");
  }
  if (transfer->file && std::fwrite(data, 1, n, transfer->file) == n) return n;
  transfer->writeFailed = true;
  return 0;
}

int CurlBaselineHost::onSocket(CURL*, curl_socket_t fd, int what, void* hostPtr, void* watchPtr) {
  auto* host = static_cast<CurlBaselineHost*>(hostPtr);
  auto* watch = static_cast<SocketWatch*>(watchPtr);
  if (what == CURL_POLL_REMOVE) {
    if (watch) {
      uv_poll_stop(&watch->poll);
      uv_close(reinterpret_cast<uv_handle_t*>(&watch->poll), onWatchClosed);
      curl_multi_assign(host->multi_, fd, nullptr);
    }
    return 0;
  }
  if (!watch) {
    watch = new SocketWatch{};
    watch->fd = fd;
    watch->host = host;
    if (uv_poll_init_socket(&host->loop_, &watch->poll, fd) != 0) {
      delete watch;
      return -1;
    }
    watch->poll.data = watch;
    host->watches_.insert(watch);
    curl_multi_assign(host->multi_, fd, watch);
  }
  int events = 0;
  if (what == CURL_POLL_IN || what == CURL_POLL_INOUT) events |= UV_READABLE;
  if (what == CURL_POLL_OUT || what == CURL_POLL_INOUT) events |= UV_WRITABLE;
  uv_poll_start(&watch->poll, events, onPoll);
  return 0;
}

int CurlBaselineHost::onTimer(CURLM*, long timeoutMs, void* hostPtr) {
  auto* host = static_cast<CurlBaselineHost*>(hostPtr);
  if (timeoutMs < 0) {
    uv_timer_stop(&host->timer_);
  } else {
    // Zero fires on the next loop iteration: libcurl must not be called from in here.
    uv_timer_start(&host->timer_, onTimeout, static_cast<uint64_t>(timeoutMs), 0);
  }
  return 0;
}

// ---- The loop's callbacks

void CurlBaselineHost::onPoll(uv_poll_t* poll, int status, int events) {
  auto* watch = static_cast<SocketWatch*>(poll->data);
  CurlBaselineHost* host = watch->host;
  int flags = 0;
  if (status < 0) flags |= CURL_CSELECT_ERR;
  if (events & UV_READABLE) flags |= CURL_CSELECT_IN;
  if (events & UV_WRITABLE) flags |= CURL_CSELECT_OUT;
  int running = 0;
  (void)curl_multi_socket_action(host->multi_, watch->fd, flags, &running);
  host->readInfo();
}

void CurlBaselineHost::onTimeout(uv_timer_t* timer) {
  auto* host = static_cast<CurlBaselineHost*>(timer->data);
  int running = 0;
  (void)curl_multi_socket_action(host->multi_, CURL_SOCKET_TIMEOUT, 0, &running);
  host->readInfo();
}

void CurlBaselineHost::onGiveUp(uv_timer_t* timer) {
  auto* host = static_cast<CurlBaselineHost*>(timer->data);
  host->gaveUp_ = true;
  uv_stop(&host->loop_);
}

void CurlBaselineHost::onWatchClosed(uv_handle_t* handle) {
  auto* watch = static_cast<SocketWatch*>(handle->data);
  watch->host->watches_.erase(watch);
  delete watch;
}

// Harvests finished transfers: each is checked, leaves the multi handle and is cleaned up.
void CurlBaselineHost::readInfo() {
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL* easy = message->easy_handle;
    const CURLcode result = message->data.result;
    Transfer* transfer = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &transfer);
    if (transfer->file) {
      if (std::fclose(transfer->file) != 0) transfer->writeFailed = true;
      transfer->file = nullptr;
    }
    Outcome outcome;
    outcome.index = transfer->index;
    outcome.transferOk = result == CURLE_OK && !transfer->writeFailed;
    if (!outcome.transferOk) {
      outcome.error =
          transfer->writeFailed ? "cannot write the output file" : curl_easy_strerror(result);
    }
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &outcome.status);
    curl_off_t length = -1;
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    outcome.announcedLength = length;
    outcome.bodyBytes = transfer->body.size();
    tally_.record(outcome);

    curl_multi_remove_handle(multi_, easy);
    curl_easy_cleanup(easy);
    transfer->easy = nullptr;
    --inMulti_;
    if (!options_.keep) std::string().swap(transfer->body);
    addWaiting();
    if (--running_ == 0) {
      lastFinish_ = monotonicSeconds();
      uv_timer_stop(&giveUp_);
      uv_stop(&loop_);
    }
  }
}

void CurlBaselineHost::stop() {
  const double begin = monotonicSeconds();
  for (Transfer& transfer : transfers_) {
    if (!transfer.easy) continue;
    (void)curl_multi_remove_handle(multi_, transfer.easy);  // harmless for one never added
    curl_easy_cleanup(transfer.easy);
    transfer.easy = nullptr;
    if (transfer.file) std::fclose(transfer.file);
    transfer.file = nullptr;
  }
  curl_multi_cleanup(multi_);
  multi_ = nullptr;
  // Sockets libcurl did not hand back are closed with the loop.
  const std::vector<SocketWatch*> open(watches_.begin(), watches_.end());
  for (SocketWatch* watch : open) {
    auto* handle = reinterpret_cast<uv_handle_t*>(&watch->poll);
    if (!uv_is_closing(handle)) uv_close(handle, onWatchClosed);
  }
  uv_close(reinterpret_cast<uv_handle_t*>(&timer_), nullptr);
  uv_close(reinterpret_cast<uv_handle_t*>(&giveUp_), nullptr);
  (void)uv_run(&loop_, UV_RUN_DEFAULT);
  (void)uv_loop_close(&loop_);
  transfers_.clear();
  curl_global_cleanup();
  report_.teardownSeconds = monotonicSeconds() - begin;
}

}  // namespace RetraBench
