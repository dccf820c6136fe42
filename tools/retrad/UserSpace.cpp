#include "retrad/UserSpace.h"

#include <algorithm>
#include <utility>

#include "Orb/ActivityManager.h"
#include "Retra/model/ResponseDir.h"
#include "Retra/remote/WireMessage.h"
#include "retrad/ClientSession.h"
#include "retrad/ResponseFeed.h"

namespace Retrad {

class UserSpace::DirectoryWatch : public Retra::ResponseDir::NotifieeConst {
 public:
  explicit DirectoryWatch(UserSpace* space) : space_(space) {}
  void onResponse(const Retra::RequestKey& key) override { space_->handleResponse(key); }

 private:
  UserSpace* space_;
};

class UserSpace::TurnEnd : public Orb::Clock::NotifieeConst {
 public:
  explicit TurnEnd(UserSpace* space) : space_(space) {}
  void onTime() override { space_->flush(); }

 private:
  UserSpace* space_;
};

UserSpace::UserSpace(uint32_t uid) : uid_(uid) {
  root_ = Orb::allocate<Retra::Root>(Orb::Name(Orb::String("retra-" + std::to_string(uid))));
  recovery_ = Retra::ParkedResponseRecovery::ParkedResponseRecoveryIs(root_->retraSm());
  directoryWatch_ = Orb::allocate<DirectoryWatch>(this);
  directoryWatch_->notifierIs(root_->retraResponse());
  turnEnd_ = Orb::allocate<TurnEnd>(this);
  turnEnd_->notifierIs(Orb::activityManager()->clock());
}

UserSpace::~UserSpace() {
  turnEnd_->notifierIs(nullptr);
  directoryWatch_->notifierIs(nullptr);
  for (auto& [key, feed] : feeds_) feed->detach();
}

void UserSpace::shutdown() {
  flush();
  root_->retraSm()->shutdown();
}

void UserSpace::requestIs(const Retra::Request& request, ClientSession* owner) {
  if (owner) {
    ephemeralOwner_.insert_or_assign(request.requestKey(), owner);
  } else {
    ephemeralOwner_.erase(request.requestKey());
  }
  root_->retraRequest()->requestIs(request);
}

void UserSpace::requestDel(const Retra::RequestKey& key) {
  ephemeralOwner_.erase(key);
  (void)root_->retraRequest()->requestDel(key);
}

void UserSpace::handleResponse(const Retra::RequestKey& key) {
  Orb::Ptr<Retra::Response> response = root_->retraResponse()->response(key);
  auto it = feeds_.find(key);
  if (!response) {
    if (it == feeds_.end()) return;
    it->second->detach();
    feeds_.erase(it);
    if (isWatched(key)) publish(key, Retra::Wire::encodeRemoved(key), Change::state);
    return;
  }
  if (it != feeds_.end()) return;
  auto feed = Orb::allocate<ResponseFeed>(this, response);
  feeds_.emplace(key, feed);
  if (isWatched(key)) publish(key, {}, Change::snapshot);
}

void UserSpace::watchAll(ClientSession* session, uint64_t id) {
  // Changes queued so far were made before the snapshots below, which include them.
  flush();
  if (std::find(watchingAll_.begin(), watchingAll_.end(), session) == watchingAll_.end()) {
    watchingAll_.push_back(session);
  }
  for (const auto& [key, feed] : feeds_) {
    for (const std::string& message : feed->snapshot()) session->send(message);
  }
  session->send(Retra::Wire::encodeSynced(id));
}

void UserSpace::watchKey(ClientSession* session, uint64_t id, const Retra::RequestKey& key) {
  flush();
  auto& sessions = watchingKey_[key];
  if (std::find(sessions.begin(), sessions.end(), session) == sessions.end()) {
    sessions.push_back(session);
  }
  if (auto it = feeds_.find(key); it != feeds_.end()) {
    for (const std::string& message : it->second->snapshot()) session->send(message);
  }
  session->send(Retra::Wire::encodeSynced(id));
}

void UserSpace::sessionGone(ClientSession* session) {
  std::erase(watchingAll_, session);
  for (auto it = watchingKey_.begin(); it != watchingKey_.end();) {
    std::erase(it->second, session);
    it = it->second.empty() ? watchingKey_.erase(it) : std::next(it);
  }
  std::vector<Retra::RequestKey> owned;
  for (const auto& [key, owner] : ephemeralOwner_) {
    if (owner == session) owned.push_back(key);
  }
  for (const Retra::RequestKey& key : owned) requestDel(key);
}

bool UserSpace::isWatched(const Retra::RequestKey& key) const {
  return !watchingAll_.empty() || watchingKey_.contains(key);
}

void UserSpace::publish(const Retra::RequestKey& key, std::string message, Change kind) {
  if (queued_.empty()) turnEnd_->timeMinIs(Orb::activityManager()->currentTime());
  queued_.push_back({key, std::move(message), kind});
}

void UserSpace::flush() {
  std::vector<Queued> queued = std::move(queued_);
  queued_.clear();
  // A finished state waits until the turn's other changes of its response went out, or until
  // the next state change of that response.
  Orb::HashMap<Retra::RequestKey, size_t> held;
  std::vector<size_t> heldOrder;
  auto release = [&](const Retra::RequestKey& key) {
    auto it = held.find(key);
    if (it == held.end()) return;
    deliver(key, queued[it->second].message);
    held.erase(it);
  };
  // A snapshot is made of the response as the turn left it, once: what the turn changed after
  // asking for it is in it already.
  Orb::HashMap<Retra::RequestKey, bool> snapshotted;
  for (size_t i = 0; i < queued.size(); ++i) {
    const Queued& change = queued[i];
    if (snapshotted.contains(change.key)) continue;
    if (change.kind != Change::plain) release(change.key);
    if (change.kind == Change::snapshot) {
      auto feed = feeds_.find(change.key);
      if (feed == feeds_.end()) continue;  // gone again within the turn
      snapshotted.emplace(change.key, true);
      for (const std::string& message : feed->second->snapshot()) deliver(change.key, message);
      continue;
    }
    if (change.kind == Change::finished) {
      held.emplace(change.key, i);
      heldOrder.push_back(i);
      continue;
    }
    deliver(change.key, change.message);
  }
  for (size_t i : heldOrder) release(queued[i].key);
}

void UserSpace::deliver(const Retra::RequestKey& key, const std::string& message) {
  for (ClientSession* session : watchingAll_) session->send(message);
  if (auto it = watchingKey_.find(key); it != watchingKey_.end()) {
    for (ClientSession* session : it->second) session->send(message);
  }
}

}  // namespace Retrad
