#include "Orb/NotifieeList.h"

#include <algorithm>
#include <utility>

#include "Orb/Trace.h"

namespace Orb {

NotifieeBase::~NotifieeBase() = default;

void NotifieeBase::handleZeroRef() const {
  const_cast<NotifieeBase*>(this)->tearingDown_ = true;
  PtrInterface::handleZeroRef();
}

void NotifieeBase::onNotificationException(const std::exception& e) {
  char buffer[256];
  if (auto t = TraceHelper::createIfEnabled(frameworkTrace(), 1, buffer)) {
    t->stream() << "exception in notification: " << e.what();
    t->trace("Orb", __LINE__, __func__);
  }
}

NotifieeList::~NotifieeList() {
  for (Visit* v = visits_; v; v = v->outer) v->listGone = true;
  // Each member forgets this notifier; iterate over a copy, since members may leave.
  std::vector<NotifieeBase*> members;
  members.swap(members_);
  members.insert(members.end(), silent_.begin(), silent_.end());
  silent_.clear();
  count_ = 0;
  for (NotifieeBase* m : members) {
    if (!m) continue;
    m->inList_ = m->silent_ = false;
    m->handleNotifierGone();
  }
}

void NotifieeList::newMember(NotifieeBase* member) {
  if (!member || member->inList_) return;
  if (member->silent_) {
    std::erase(silent_, member);
    member->silent_ = false;
  }
  members_.push_back(member);
  member->inList_ = true;
  ++count_;
}

void NotifieeList::newSilentMember(NotifieeBase* member) {
  if (!member || member->silent_) return;
  memberLeft(member);
  silent_.push_back(member);
  member->silent_ = true;
}

void NotifieeList::deleteMember(NotifieeBase* member) {
  if (!member) return;
  memberLeft(member);
  if (member->silent_) {
    std::erase(silent_, member);
    member->silent_ = false;
  }
}

void NotifieeList::memberLeft(NotifieeBase* member) {
  if (!member->inList_) return;
  auto it = std::find(members_.begin(), members_.end(), member);
  if (it == members_.end()) return;
  member->inList_ = false;
  --count_;
  if (visits_) {
    *it = nullptr;  // keep indices of running visits valid
  } else {
    members_.erase(it);
  }
}

void NotifieeList::deleteAll() {
  for (size_t i = 0; i < members_.size(); ++i) {
    NotifieeBase* m = std::exchange(members_[i], nullptr);
    if (!m) continue;
    m->inList_ = false;
    --count_;
    silent_.push_back(m);
    m->silent_ = true;
  }
  if (!visits_) members_.clear();
}

void NotifieeList::compact() {
  if (members_.size() != count_) std::erase(members_, nullptr);
}

void NotifieeList::reportException(size_t index, NotifieeBase* member, const std::exception& e) {
  if (index < members_.size() && members_[index] == member) {
    member->onNotificationException(e);
  } else {
    // The member left during its own callback: report without touching it.
    char buffer[256];
    if (auto t = TraceHelper::createIfEnabled(frameworkTrace(), 1, buffer)) {
      t->stream() << "exception in notification of a departed observer: " << e.what();
      t->trace("Orb", __LINE__, __func__);
    }
  }
}

}  // namespace Orb
