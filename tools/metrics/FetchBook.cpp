#include "metrics/FetchBook.h"

#include "Retra/model/ResponseDir.h"

namespace RetraMetrics {

// Gives each response of one user's directory its record, replaying those present on connection.
class FetchBook::DirectoryWatch : public Retra::ResponseDir::NotifieeConst {
 public:
  explicit DirectoryWatch(User* user) : user_(user) {}

  void onResponse(const Retra::RequestKey& key) override {
    const Orb::Ptr<Retra::Response> response = notifier()->response(key);
    auto it = user_->records.find(key);
    if (it != user_->records.end() && (!response || it->second->notifierPtr() != response.ptr())) {
      it->second->notifierIs(nullptr);
      user_->records.erase(it);
      it = user_->records.end();
    }
    if (!response || it != user_->records.end()) return;
    auto record = Orb::allocate<FetchRecord>(user_->uid, user_->root->dnsrRecord());
    record->notifierIs(response);
    user_->records.emplace(key, record);
  }

 protected:
  void onNotifierConnected() override {
    for (const auto& [key, response] : notifier()->response()) onResponse(key);
  }

 private:
  User* user_;
};

FetchBook::~FetchBook() {
  for (auto& [uid, watch] : watches_) watch->notifierIs(nullptr);
  for (auto& [uid, user] : users_) {
    for (auto& [key, record] : user->records) record->notifierIs(nullptr);
  }
}

void FetchBook::userIs(uint32_t uid, const Orb::Ptr<Retra::Root>& root) {
  auto it = users_.find(uid);
  if (it != users_.end() && it->second->root == root) return;
  if (it != users_.end()) {
    watches_[uid]->notifierIs(nullptr);
    for (auto& [key, record] : it->second->records) record->notifierIs(nullptr);
    users_.erase(it);
  }
  auto user = std::make_unique<User>();
  user->uid = uid;
  user->root = root;
  auto watch = Orb::allocate<DirectoryWatch>(user.get());
  users_.emplace(uid, std::move(user));
  watches_[uid] = watch;
  watch->notifierIs(root->retraResponse());
}

size_t FetchBook::recordCount() const {
  size_t count = 0;
  for (const auto& [uid, user] : users_) count += user->records.size();
  return count;
}

}  // namespace RetraMetrics
