#include "Retra/remote/RemoteRoot.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "Orb/ActivityManager.h"
#include "Orb/AttrLog.h"
#include "Orb/Clock.h"
#include "Orb/Exception.h"
#include "Retra/remote/FrameChannel.h"
#include "Retra/remote/ResponseStream.h"

namespace Retra {
namespace {

constexpr Orb::Seconds kRetryDelay = 0.5;
// What the client lets pile up for a slow service before it gives the connection up.
constexpr size_t kMaxQueued = 256u << 20;

// A connected Unix stream socket to `path`, or -1 with `error` set.
int connectTo(const std::string& path, std::string& error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    error = "socket path too long: " + path;
    return -1;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::string("socket: ") + std::strerror(errno);
    return -1;
  }
  int result;
  do {
    result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    error = "cannot connect to " + path + ": " + std::strerror(errno);
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

// The connection: hands frames to the remote root.
class RemoteRoot::Link : public Wire::FrameChannel::Handler, public Orb::PtrInterface {
 public:
  Link(RemoteRoot* root, int fd) : root_(root) {
    channel_ = Orb::allocate<Wire::FrameChannel>(fd, this, kMaxQueued);
  }
  void send(const std::string& payload) { channel_->send(payload); }
  void close() { channel_->close(); }

  void onFrame(std::string_view payload) override {
    Wire::Message message;
    try {
      message = Wire::decodeMessage(payload);
      if (!root_->welcomed_) return root_->handleWelcome(message);
      root_->handleMessage(message);
    } catch (const Orb::ParseException& e) {
      channel_->close();
      root_->handleDisconnected(std::string("malformed message from the service: ") + e.what());
    }
  }
  void onClosed(const std::string& why) override { root_->handleDisconnected(why); }

 private:
  RemoteRoot* root_;
  Orb::Ptr<Wire::FrameChannel> channel_;
};

// Hears of the host's writes and withdrawals.
class RemoteRoot::RequestWatch : public RequestDir::NotifieeConst {
 public:
  explicit RequestWatch(RemoteRoot* root) : root_(root) {}
  void onRequest(const RequestKey& key) override { root_->handleRequest(key); }

 private:
  RemoteRoot* root_;
};

// Connects on the next turn, and again after a failure.
class RemoteRoot::RetryTimer : public Orb::Clock::NotifieeConst {
 public:
  explicit RetryTimer(RemoteRoot* root) : root_(root) {}
  void onTime() override { root_->connect(); }

 private:
  RemoteRoot* root_;
};

std::string RemoteRoot::defaultSocketPath() {
  if (const char* socket = std::getenv("RETRA_SOCKET"); socket && *socket) return socket;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string base =
      runtime && *runtime ? runtime : "/run/user/" + std::to_string(::getuid());
  return base + "/retra/retrad.sock";
}

RemoteRoot::RemoteRoot(const Orb::Name& name, Options options)
    : Orb::Entity(name), options_(std::move(options)) {
  retraRequest_ = Orb::allocate<RequestDir>("retraRequest");
  retraRequest_->parentIs(this);
  retraRequest_->parentAttrIdIs(Attr::retraRequest);
  retraResponse_ = Orb::allocate<ResponseDir>("retraResponse");
  retraResponse_->parentIs(this);
  retraResponse_->parentAttrIdIs(Attr::retraResponse);
  requestWatch_ = Orb::allocate<RequestWatch>(this);
  requestWatch_->notifierIs(retraRequest_);
  retry_ = Orb::allocate<RetryTimer>(this);
  retry_->notifierIs(Orb::activityManager()->clock());
  retry_->timeMinIs(Orb::activityManager()->currentTime());
}

RemoteRoot::~RemoteRoot() {
  retry_->notifierIs(nullptr);
  requestWatch_->notifierIs(nullptr);
  if (link_) link_->close();
  retraRequest_->parentIs(nullptr);
  retraResponse_->parentIs(nullptr);
}

void RemoteRoot::close() {
  closed_ = true;
  retry_->timeMinIs(Orb::Clock::never);
  if (link_) link_->close();
  link_ = nullptr;
  welcomed_ = false;
  connectedIs(false);
  failWaitingCommands("closed");
}

void RemoteRoot::connect() {
  if (closed_ || link_) return;
  std::string error;
  const int fd = connectTo(options_.socketPath, error);
  if (fd < 0) return handleDisconnected(error);
  link_ = Orb::allocate<Link>(this, fd);
  link_->send(Wire::encodeHello(options_.clientName));
}

void RemoteRoot::handleWelcome(const Wire::Message& message) {
  if (message.type != Wire::MessageType::welcome) {
    link_->close();
    return handleDisconnected("the service refused the connection: " + message.text);
  }
  welcomed_ = true;
  uidIs(message.uid);
  serviceVersionIs(Orb::String(message.text));
  connectErrorIs({});
  if (options_.watchEverything || !options_.watchKey.uri().view().empty()) {
    syncedIs(false);
    resyncSeen_.clear();
    watchId_ = nextId_++;
    link_->send(Wire::encodeWatch(watchId_, options_.watchEverything, options_.watchKey));
  }
  // What the host wrote while the connection was down, then (ephemeral requests living only as
  // long as their connection) every request it wrote.
  std::vector<RequestKey> unsent = std::move(unsent_);
  unsent_.clear();
  if (options_.ephemeral) {
    for (const auto& [key, request] : retraRequest_->request()) unsent.push_back(key);
  }
  Orb::HashMap<RequestKey, bool> sent;
  for (const RequestKey& key : unsent) {
    if (sent.try_emplace(key, true).second) sendRequestChange(key);
  }
  auto deferred = std::move(deferred_);
  deferred_.clear();
  for (auto& command : deferred) command();
  connectedIs(true);
}

void RemoteRoot::handleMessage(const Wire::Message& message) {
  using Wire::MessageType;
  switch (message.type) {
    case MessageType::reply:
      return handleReply(message);
    case MessageType::listing:
      // Long listings come in several messages before the reply.
      if (auto it = waitingLists_.find(message.id); it != waitingLists_.end()) {
        it->second.listing.insert(it->second.listing.end(), message.listing.begin(),
                                  message.listing.end());
      }
      return;
    case MessageType::snapshot: {
      Orb::Ptr<Response> response = retraResponse_->responseIs(message.key);
      Orb::AttrLogIn in(message.rest);
      Wire::applySnapshot(in, *response);
      if (!synced()) resyncSeen_.insert_or_assign(message.key, true);
      return;
    }
    case MessageType::change: {
      Orb::Ptr<Response> response = retraResponse_->responseIs(message.key);
      Orb::AttrLogIn in(message.rest);
      Wire::applyChange(in, *response);
      return;
    }
    case MessageType::removed:
      (void)retraResponse_->responseDel(message.key);
      return;
    case MessageType::synced: {
      if (message.id != watchId_) return;
      std::vector<RequestKey> gone;
      for (const auto& [key, response] : retraResponse_->response()) {
        if (!resyncSeen_.contains(key)) gone.push_back(key);
      }
      for (const RequestKey& key : gone) (void)retraResponse_->responseDel(key);
      resyncSeen_.clear();
      syncedIs(true);
      return;
    }
    default:
      throw Orb::ParseException(std::string("unexpected ") + Wire::messageTypeName(message.type) +
                                " from the service");
  }
}

void RemoteRoot::handleReply(const Wire::Message& message) {
  const bool ok = message.code == Wire::ReplyCode::ok;
  if (auto it = waitingWrites_.find(message.id); it != waitingWrites_.end()) {
    const RequestKey key = it->second;
    waitingWrites_.erase(it);
    if (ok) {
      acknowledgedInc(1);
    } else {
      lastRefusalIs(Orb::String(key.uri().str() + ": " + message.text));
      refusedInc(1);
    }
    if (writeHandler_) writeHandler_(key, message.code, message.text);
    return;
  }
  if (auto list = waitingLists_.find(message.id); list != waitingLists_.end()) {
    WaitingList waiting = std::move(list->second);
    waitingLists_.erase(list);
    waiting.handler(message.code, message.text, waiting.listing);
    return;
  }
  auto it = waiting_.find(message.id);
  if (it == waiting_.end()) return;
  ReplyHandler handler = std::move(it->second);
  waiting_.erase(it);
  if (handler) handler(message.code, message.text);
}

void RemoteRoot::handleDisconnected(const std::string& why) {
  Orb::Ptr<RemoteRoot> keep(this);
  link_ = nullptr;
  welcomed_ = false;
  connectErrorIs(Orb::String(why));
  syncedIs(false);
  connectedIs(false);
  // Writes not answered are sent again on the next connection: the service applies a write of
  // the same request twice as once.
  for (const auto& [id, key] : waitingWrites_) unsent_.push_back(key);
  waitingWrites_.clear();
  failWaitingCommands(why);
  if (closed_) return;
  if (options_.reconnect) {
    retry_->timeMinIs(Orb::activityManager()->currentTime() + kRetryDelay);
  } else {
    auto deferred = std::move(deferred_);
    deferred_.clear();
    closed_ = true;
    for (auto& command : deferred) command();  // each answers `unavailable` now
  }
}

void RemoteRoot::failWaitingCommands(const std::string& why) {
  auto waiting = std::move(waiting_);
  waiting_.clear();
  auto lists = std::move(waitingLists_);
  waitingLists_.clear();
  for (auto& [id, handler] : waiting) {
    if (handler) handler(Wire::ReplyCode::unavailable, why);
  }
  for (auto& [id, list] : lists) list.handler(Wire::ReplyCode::unavailable, why, {});
}

void RemoteRoot::handleRequest(const RequestKey& key) {
  if (!welcomed_) {
    unsent_.push_back(key);
    return;
  }
  sendRequestChange(key);
}

void RemoteRoot::sendRequestChange(const RequestKey& key) {
  const uint64_t id = nextId_++;
  auto it = retraRequest_->request().find(key);
  if (it != retraRequest_->request().end()) {
    link_->send(Wire::encodeWriteRequest(id, options_.ephemeral, it->second));
  } else {
    link_->send(Wire::encodeKeyCommand(Wire::MessageType::withdraw, id, key));
  }
  waitingWrites_.insert_or_assign(id, key);
}

uint64_t RemoteRoot::sendCommand(const std::string& payload) {
  const uint64_t id = nextId_++;
  link_->send(payload);
  return id;
}

void RemoteRoot::command(std::function<std::string(uint64_t)> encode, ReplyHandler handler) {
  if (closed_ && !welcomed_) return handler(Wire::ReplyCode::unavailable, connectError().str());
  if (!welcomed_) {
    deferred_.push_back([this, encode = std::move(encode), handler = std::move(handler)]() mutable {
      command(std::move(encode), std::move(handler));
    });
    return;
  }
  const uint64_t id = nextId_;
  waiting_[id] = std::move(handler);
  (void)sendCommand(encode(id));
}

void RemoteRoot::ping(ReplyHandler handler) {
  command([](uint64_t id) { return Wire::encodePing(id); }, std::move(handler));
}

void RemoteRoot::reset(const RequestKey& key, ReplyHandler handler) {
  command([key](uint64_t id) { return Wire::encodeKeyCommand(Wire::MessageType::reset, id, key); },
          std::move(handler));
}

void RemoteRoot::withdraw(const RequestKey& key, ReplyHandler handler) {
  command(
      [key](uint64_t id) { return Wire::encodeKeyCommand(Wire::MessageType::withdraw, id, key); },
      std::move(handler));
}

void RemoteRoot::list(bool allUsers, ListHandler handler) {
  if (closed_ && !welcomed_) {
    return handler(Wire::ReplyCode::unavailable, connectError().str(), {});
  }
  if (!welcomed_) {
    deferred_.push_back([this, allUsers, handler = std::move(handler)]() mutable {
      list(allUsers, std::move(handler));
    });
    return;
  }
  const uint64_t id = nextId_;
  waitingLists_[id] = WaitingList{std::move(handler), {}};
  (void)sendCommand(Wire::encodeList(id, allUsers));
}

const Orb::TypeNode* RemoteRoot::staticTypeNode() {
  static const auto* node = new Orb::TypeNode(
      "Retra::RemoteRoot", Orb::TypeNode::Kind::entity,
      ORB_ATTRIBUTE_TABLE(Orb::firstEntityAttributeId, RETRA_REMOTE_ROOT_ATTRIBUTES));
  return node;
}

}  // namespace Retra
