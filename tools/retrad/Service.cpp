#include "retrad/Service.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "Orb/HashMap.h"
#include "Retra/model/ResponseDir.h"
#include "retrad/ServiceTrace.h"

namespace Retrad {

using Retra::Wire::MessageType;
using Retra::Wire::ReplyCode;

namespace {

// A URI longer than this is refused as a key: no server takes a request line that long.
constexpr size_t kMaxUriBytes = 64u << 10;

bool isWrite(MessageType type) {
  return type == MessageType::writeRequest || type == MessageType::withdraw;
}

}  // namespace

Service::Service(ServiceOptions options)
    : options_(std::move(options)), store_(options_.statePath) {
  restore();
  listener_ = std::make_unique<ListenSocket>(options_.socketPath, options_.system,
                                             [this](int fd) { accept(fd); });
  RETRAD_TRACE(2, "listening on " << (listener_->fromSystemd() ? "the socket systemd passed"
                                                               : options_.socketPath));
}

Service::~Service() {
  listener_.reset();
  for (auto& [raw, session] : sessions_) session->close();
  sessions_.clear();
  spaces_.clear();
}

void Service::shutdown() {
  for (auto& [uid, space] : spaces_) space->shutdown();
}

void Service::restore() {
  size_t unreadable = 0;
  const auto stored = store_.all(&unreadable);
  for (const RequestStore::Stored& item : stored)
    userSpace(item.uid).requestIs(item.request, nullptr);
  RETRAD_TRACE(2, "restored " << stored.size() << " requests");
  if (unreadable > 0) RETRAD_TRACE(1, unreadable << " stored requests could not be read");
}

UserSpace& Service::userSpace(uid_t uid) {
  auto it = spaces_.find(uid);
  if (it != spaces_.end()) return *it->second;
  if (options_.system && !options_.outputDir.empty()) {
    // The uid's own output directory: only the service enters it.
    const std::string dir = options_.outputDir + "/" + std::to_string(uid);
    ::mkdir(options_.outputDir.c_str(), 0755);
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
      RETRAD_TRACE(1, "cannot make " << dir << ": " << std::strerror(errno));
    }
  }
  UserSpace& space = *spaces_.emplace(uid, std::make_unique<UserSpace>(uid)).first->second;
  if (userSpaceAdded_) userSpaceAdded_(space);
  return space;
}

void Service::accept(int descriptor) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    RETRAD_TRACE(1, "no peer credentials: " << std::strerror(errno));
    ::close(descriptor);
    return;
  }
  auto session =
      Orb::allocate<ClientSession>(this, descriptor, peer.uid, peer.pid, options_.maxQueuedBytes);
  sessions_.emplace(session.ptr(), session);
}

std::string Service::refusalOf(const ClientSession& session) const {
  if (options_.system || session.uid() == ::geteuid()) return {};
  return "this is the service of uid " + std::to_string(::geteuid()) + "; uid " +
         std::to_string(session.uid()) + " has its own (retrad without --system)";
}

void Service::sessionClosed(ClientSession* session, const std::string& why) {
  auto it = sessions_.find(session);
  if (it == sessions_.end()) return;
  Orb::Ptr<ClientSession> keep = it->second;
  sessions_.erase(it);
  if (auto space = spaces_.find(session->uid()); space != spaces_.end()) {
    space->second->sessionGone(session);
  }
  RETRAD_TRACE(
      2, "disconnection of uid " << session->uid() << " pid " << session->pid() << ": " << why);
}

Service::Verdict Service::checkWrite(uid_t uid, const Retra::Request& request) const {
  const std::string_view uri = request.uri().view();
  if (uri.empty() || uri.size() > kMaxUriBytes || uri.find('\0') != std::string_view::npos) {
    return {ReplyCode::invalidKey, "a request needs a URI of at most 65536 bytes without NUL"};
  }
  const std::string output = request.outputPath().str();
  if (output.empty()) return {};
  const std::filesystem::path path(output);
  if (!path.is_absolute()) return {ReplyCode::outputPathRefused, "outputPath must be absolute"};
  if (!options_.system) return {};  // the service runs as the client's own user
  if (options_.outputDir.empty()) {
    return {ReplyCode::outputPathRefused, "this service writes no output files (no --output-dir)"};
  }
  const std::filesystem::path inside =
      std::filesystem::path(options_.outputDir) / std::to_string(uid);
  const std::filesystem::path normal = path.lexically_normal();
  const auto relative = normal.lexically_relative(inside);
  if (relative.empty() || *relative.begin() == ".." || relative == ".") {
    return {ReplyCode::outputPathRefused, "outputPath must be inside " + inside.string() + "/"};
  }
  return {};
}

void Service::storeBatch(UserSpace& space, std::vector<ClientSession::Incoming>& batch,
                         std::vector<Verdict>& verdicts) {
  const auto& requests = space.root()->retraRequest()->request();
  size_t count = requests.size();
  Orb::HashMap<Retra::RequestKey, bool> present;  // what the batch did to a key so far
  auto exists = [&](const Retra::RequestKey& key) {
    auto it = present.find(key);
    return it != present.end() ? it->second : requests.contains(key);
  };
  std::vector<size_t> stored;
  try {
    for (size_t i = 0; i < batch.size(); ++i) {
      const ClientSession::Incoming& in = batch[i];
      if (in.refusal != ReplyCode::ok || !isWrite(in.message.type)) continue;
      Verdict& verdict = verdicts[i];
      if (in.message.type == MessageType::writeRequest) {
        const Retra::Request& request = in.message.request;
        verdict = checkWrite(space.uid(), request);
        if (verdict.code != ReplyCode::ok) continue;
        const bool isNew = !exists(request.requestKey());
        if (isNew && count >= options_.maxRequests) {
          verdict = {ReplyCode::tooManyRequests, "uid " + std::to_string(space.uid()) + " has " +
                                                     std::to_string(count) +
                                                     " requests, the most --max-requests allows"};
          continue;
        }
        count += isNew ? 1 : 0;
        present.insert_or_assign(request.requestKey(), true);
        store_.begin();
        if (in.message.flag) {
          store_.remove(space.uid(), request.requestKey());  // an ephemeral one is not kept
        } else {
          store_.put(space.uid(), request);
        }
      } else {
        if (!exists(in.message.key)) {
          verdict = {ReplyCode::notFound, "no request " + in.message.key.uri().str()};
          continue;
        }
        --count;
        present.insert_or_assign(in.message.key, false);
        store_.begin();
        store_.remove(space.uid(), in.message.key);
      }
      stored.push_back(i);
    }
    store_.commit();
  } catch (const std::exception& e) {
    store_.rollback();
    RETRAD_TRACE(1, e.what());
    for (size_t i : stored) verdicts[i] = {ReplyCode::storage, e.what()};
  }
}

void Service::runBatch(ClientSession& session, std::vector<ClientSession::Incoming>& batch) {
  UserSpace& space = userSpace(session.uid());
  std::vector<Verdict> verdicts(batch.size());
  storeBatch(space, batch, verdicts);
  for (size_t i = 0; i < batch.size(); ++i) {
    const ClientSession::Incoming& in = batch[i];
    const Retra::Wire::Message& m = in.message;
    if (in.refusal != ReplyCode::ok) {
      session.reply(m.id, in.refusal, in.reason);
      continue;
    }
    RETRAD_TRACE(3, "uid " << session.uid() << ": " << Retra::Wire::messageTypeName(m.type));
    const Verdict& verdict = verdicts[i];
    switch (m.type) {
      case MessageType::writeRequest:
        if (verdict.code == ReplyCode::ok) space.requestIs(m.request, m.flag ? &session : nullptr);
        session.reply(m.id, verdict.code, verdict.text);
        break;
      case MessageType::withdraw:
        if (verdict.code == ReplyCode::ok) space.requestDel(m.key);
        session.reply(m.id, verdict.code, verdict.text);
        break;
      case MessageType::reset:
        if (space.root()->retraRequest()->request().contains(m.key)) {
          space.root()->retraSm()->doResetRequest(m.key);
          session.reply(m.id, ReplyCode::ok, {});
        } else {
          session.reply(m.id, ReplyCode::notFound, "no request " + m.key.uri().str());
        }
        break;
      case MessageType::list:
        list(session, m);
        break;
      case MessageType::watch:
        if (m.flag) {
          space.watchAll(&session, m.id);
        } else {
          space.watchKey(&session, m.id, m.key);
        }
        session.reply(m.id, ReplyCode::ok, {});
        break;
      case MessageType::ping:
        session.reply(m.id, ReplyCode::ok, version());
        break;
      case MessageType::hello:
        session.reply(m.id, ReplyCode::handshake, "hello was said already");
        break;
      default:
        session.reply(m.id, ReplyCode::unknownMessage,
                      std::string(Retra::Wire::messageTypeName(m.type)) +
                          " is sent by the service, not to it");
    }
  }
}

void Service::list(ClientSession& session, const Retra::Wire::Message& message) {
  if (message.flag && session.uid() != 0) {
    session.reply(message.id, ReplyCode::notAllowed, "only uid 0 lists every uid's requests");
    return;
  }
  std::vector<Retra::Wire::ListedRequest> listing;
  for (const auto& [uid, space] : spaces_) {
    if (!message.flag && uid != session.uid()) continue;
    const auto& root = space->root();
    for (const auto& [key, request] : root->retraRequest()->request()) {
      Retra::Wire::ListedRequest item;
      item.uid = uid;
      item.request = request;
      if (message.flag && uid != session.uid()) {
        // Read-only and without secrets: another uid's credentials stay its own.
        item.request.passwordIs({});
        item.request.usernameIs({});
      }
      if (auto response = root->retraResponse()->response(key)) {
        item.state = response->requestState();
        item.statusCode = response->statusCode();
        item.lastError = response->lastError();
        item.lastUpdateTime = response->lastUpdateTime();
      }
      listing.push_back(std::move(item));
    }
  }
  // In pieces, so that no frame comes near the limit however many requests there are.
  constexpr size_t kPiece = 5000;
  for (size_t at = 0; at < listing.size(); at += kPiece) {
    const size_t to = std::min(listing.size(), at + kPiece);
    session.send(Retra::Wire::encodeListing(
        message.id, std::vector<Retra::Wire::ListedRequest>(listing.begin() + long(at),
                                                            listing.begin() + long(to))));
  }
  session.reply(message.id, ReplyCode::ok, {});
}

}  // namespace Retrad
