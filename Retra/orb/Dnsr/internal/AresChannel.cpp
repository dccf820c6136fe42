#include "Dnsr/internal/AresChannel.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "Dnsr/internal/DnsrTrace.h"
#include "Orb/Exception.h"
#include "Orb/FileDescriptor.h"

namespace Dnsr::internal {

// Watches one c-ares socket through an `Orb::FileDescriptor` and reports readiness to the
// channel. c-ares owns and closes the socket; the watch stops before it does.
class AresChannel::SocketWatch : public Orb::FileDescriptor::NotifieeConst {
 public:
  SocketWatch(AresChannel* owner, ares_socket_t socket)
      : owner_(owner),
        socket_(socket),
        descriptor_(Orb::allocate<Orb::FileDescriptor>(
            Orb::Name(Orb::String("dnsrSocket" + std::to_string(socket))))) {
    descriptor_->descriptorIs(socket);
    notifierIs(descriptor_);
  }

  // What c-ares wants to hear about; the loop watches only while the channel is active.
  void interestIs(bool readable, bool writable, bool active) {
    readable_ = readable;
    writable_ = writable;
    descriptor_->notifyOnReadableIs(active && readable_);
    descriptor_->notifyOnWritableIs(active && writable_);
  }
  void isActiveIs(bool active) { interestIs(readable_, writable_, active); }

  // Stops watching, before c-ares closes the socket, and lets the descriptor go.
  void released() {
    owner_ = nullptr;
    descriptor_->descriptorIs(-1);
    notifierIs(nullptr);
  }

  // Each handler may end with this watch released and freed: nothing touches it afterwards.
  void onReadableCount() override {
    if (owner_) owner_->processed(socket_, ARES_SOCKET_BAD);
  }
  void onWritableCount() override {
    if (owner_) owner_->processed(ARES_SOCKET_BAD, socket_);
  }
  // Priority data (errors arrive as readiness): a read lets c-ares look at the socket.
  void onExceptionPendingCount() override {
    if (owner_) owner_->processed(socket_, ARES_SOCKET_BAD);
  }

 private:
  AresChannel* owner_;
  ares_socket_t socket_;
  Orb::Ptr<Orb::FileDescriptor> descriptor_;
  bool readable_ = false;
  bool writable_ = false;
};

// Wakes the channel at c-ares's next time-out.
class AresChannel::TimeoutWatch : public Orb::Clock::NotifieeConst {
 public:
  explicit TimeoutWatch(AresChannel* owner) : owner_(owner) {}
  void released() { owner_ = nullptr; }
  void onTime() override {
    if (owner_) owner_->processed(ARES_SOCKET_BAD, ARES_SOCKET_BAD);
  }

 private:
  AresChannel* owner_;
};

namespace {

[[noreturn]] void channelFailed(const char* what, int status) {
  Orb::throwRangeException(
      (std::string("c-ares ") + what + " failed: " + ares_strerror(status)).c_str());
}

}  // namespace

AresChannel::AresChannel(const DnsrConfig& config, const Orb::Ptr<Orb::Clock>& clock) {
  if (int status = ares_library_init(ARES_LIB_INIT_ALL); status != ARES_SUCCESS) {
    channelFailed("library initialisation", status);
  }
  try {
    channel_ = created(config, false);
    // With a single server there is no other to turn to: take its refusal or failure as the
    // answer, which then reports the exact error. With several, c-ares moves on to the next
    // server on such answers, and a refusal by all of them reads as a server failure.
    if (serverCount() == 1) {
      ares_destroy(channel_);
      channel_ = created(config, true);
    }
  } catch (...) {
    ares_library_cleanup();
    throw;
  }
  timeout_ = Orb::allocate<TimeoutWatch>(this);
  timeout_->notifierIs(clock);
}

ares_channel AresChannel::created(const DnsrConfig& config, bool takeFailureAnswers) {
  ares_options options{};
  int mask = ARES_OPT_SOCK_STATE_CB;
  options.sock_state_cb = &AresChannel::onSocketState;
  options.sock_state_cb_data = this;
  if (config.queryTimeout > 0) {
    mask |= ARES_OPT_TIMEOUTMS;
    options.timeout = std::max(1, static_cast<int>(std::lround(config.queryTimeout * 1000.0)));
  }
  if (config.queryTries > 0) {
    mask |= ARES_OPT_TRIES;
    options.tries = static_cast<int>(config.queryTries);
  }
  if (takeFailureAnswers) {
    mask |= ARES_OPT_FLAGS;
    options.flags = ARES_FLAG_NOCHECKRESP;
  }
  ares_channel channel = nullptr;
  if (int status = ares_init_options(&channel, &options, mask); status != ARES_SUCCESS) {
    channelFailed("channel initialisation", status);
  }
  if (config.servers.empty()) return channel;
  std::vector<ares_addr_port_node> nodes(config.servers.size());
  for (size_t i = 0; i < nodes.size(); ++i) {
    const NameServer& server = config.servers[i];
    ares_addr_port_node& node = nodes[i];
    node.next = i + 1 < nodes.size() ? &nodes[i + 1] : nullptr;
    if (server.isIp6()) {
      node.family = AF_INET6;
      static_assert(sizeof node.addr.addr6 == sizeof server.ip6Address().bytes());
      std::memcpy(&node.addr.addr6, server.ip6Address().bytes().data(), 16);
    } else {
      node.family = AF_INET;
      node.addr.addr4 = server.ipAddress().inAddr();
    }
    node.udp_port = node.tcp_port = server.port();
  }
  if (int status = ares_set_servers_ports(channel, nodes.data()); status != ARES_SUCCESS) {
    ares_destroy(channel);
    channelFailed("setting the name servers", status);
  }
  return channel;
}

size_t AresChannel::serverCount() const {
  ares_addr_port_node* servers = nullptr;
  if (ares_get_servers_ports(channel_, &servers) != ARES_SUCCESS) return 0;
  size_t count = 0;
  for (const ares_addr_port_node* s = servers; s; s = s->next) ++count;
  ares_free_data(servers);
  return count;
}

AresChannel::~AresChannel() {
  timeout_->released();
  timeout_->notifierIs(nullptr);
  // Closes every socket, each announced through onSocketState first.
  ares_destroy(channel_);
  ares_library_cleanup();
  for (auto& [socket, watch] : sockets_) watch->released();
  sockets_.clear();
}

void AresChannel::onSocketState(void* data, ares_socket_t socket, int readable, int writable) {
  // Nothing may unwind through c-ares. A socket the loop cannot watch leaves its queries to
  // time out.
  try {
    static_cast<AresChannel*>(data)->socketStateIs(socket, readable != 0, writable != 0);
  } catch (const std::exception& e) {
    DNSR_TRACE(1, "socket " << socket << " not watched: " << e.what());
  }
}

void AresChannel::socketStateIs(ares_socket_t socket, bool readable, bool writable) {
  DNSR_TRACE(9, "socket " << socket << " readable=" << readable << " writable=" << writable);
  auto it = sockets_.find(socket);
  if (!readable && !writable) {
    if (it == sockets_.end()) return;
    Orb::Ptr<SocketWatch> watch = std::move(it->second);
    sockets_.erase(it);
    watch->released();
    return;
  }
  if (it == sockets_.end()) {
    it = sockets_.emplace(socket, Orb::allocate<SocketWatch>(this, socket)).first;
  }
  it->second->interestIs(readable, writable, active_);
}

void AresChannel::processed(ares_socket_t readable, ares_socket_t writable) {
  DNSR_TRACE(9, "processing readable=" << readable << " writable=" << writable);
  ares_process_fd(channel_, readable, writable);
  timeoutUpdated();
}

void AresChannel::timeoutUpdated() {
  timeval wait{};
  const timeval* next = ares_timeout(channel_, nullptr, &wait);
  if (!next) {
    timeout_->timeMinIs(Orb::Clock::never);
    return;
  }
  const Orb::Seconds delay = Orb::Seconds(next->tv_sec) + Orb::Seconds(next->tv_usec) / 1e6;
  DNSR_TRACE(9, "next time-out in " << delay << " s");
  timeout_->timeMinIs(Orb::System::currentTime() + delay);
}

void AresChannel::queriesCancelled() {
  ares_cancel(channel_);
  timeoutUpdated();
}

void AresChannel::isActiveIs(bool active) {
  if (active == active_) return;
  active_ = active;
  timeout_->isRegisteredNotifieeIs(active);
  for (auto& [socket, watch] : sockets_) watch->isActiveIs(active);
}

}  // namespace Dnsr::internal
