#pragma once

#include <cstddef>
#include <exception>
#include <utility>
#include <vector>

#include "Orb/PtrInterface.h"

namespace Orb {

class NotifieeList;

// Non-template base of every observer, as kept in a `NotifieeList`.
class NotifieeBase : public PtrInterface {
 public:
  // True while the observer sits in its notifier's list and receives callbacks.
  [[nodiscard]] bool isInNotifieeList() const noexcept { return inList_; }
  // True while the observer is connected but silent: it gets no callbacks, only word of the
  // notifier's end.
  [[nodiscard]] bool isSilentMember() const noexcept { return silent_; }
  // True once the observer has begun to go away: reactors then ignore late callbacks.
  [[nodiscard]] bool isTearingDown() const noexcept { return tearingDown_; }

 protected:
  NotifieeBase() = default;
  ~NotifieeBase() override;
  void handleZeroRef() const override;
  void tearingDownIs(bool v) noexcept { tearingDown_ = v; }

  // A callback threw: the list reports it here and goes on with the next observer. The default
  // traces it at level 1 on the "Orb" facility.
  virtual void onNotificationException(const std::exception& e);
  // The notifier is being destroyed: drop every pointer to it. Every connected observer hears
  // it, whether it receives callbacks or is a silent member.
  virtual void handleNotifierGone() = 0;

 private:
  friend class NotifieeList;
  bool inList_ = false;
  bool silent_ = false;
  bool tearingDown_ = false;
};

// The observers of one notifier. Members receive callbacks; silent members (connected observers
// that are not registered, or were dropped by `deleteAll`) only hear of the notifier's end, so
// that no observer, weak ones included, keeps a pointer to a notifier that is gone. An observer
// is in at most one of the two. Visiting calls one callback on each member in registration
// order. It stays correct while callbacks add members (they are first called by the next
// visit), remove members (a removed member is never called again and never touched once gone),
// or destroy the notifier itself (the visit stops at once).
class NotifieeList {
 public:
  NotifieeList() = default;
  ~NotifieeList();
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;

  // Adds `member` to the members (from the silent members if it is one).
  void newMember(NotifieeBase* member);
  // Makes `member` a silent member (leaving the members if it is one).
  void newSilentMember(NotifieeBase* member);
  // Removes `member` from either.
  void deleteMember(NotifieeBase* member);
  // Turns every member into a silent member: callbacks stop, word of the end still comes.
  void deleteAll();
  [[nodiscard]] size_t members() const noexcept { return count_; }

  // Calls `(member->*callback)(args...)` on every member, each member seen as `N`.
  template <class N, class... Params, class... Args>
  void doVisit(void (N::*callback)(Params...), Args&&... args) {
    if (count_ == 0) return;
    Visit visit(*this);
    size_t n = members_.size();
    for (size_t i = 0; i < n; ++i) {
      NotifieeBase* m = members_[i];
      if (!m) continue;
      try {
        (static_cast<N*>(m)->*callback)(args...);
      } catch (const std::exception& e) {
        if (visit.listGone) return;
        reportException(i, m, e);
      }
      if (visit.listGone) return;
    }
  }

 private:
  // One active visit; nested visits form a chain, so the destructor can warn all of them.
  struct Visit {
    explicit Visit(NotifieeList& l) : list(l), outer(l.visits_) { l.visits_ = this; }
    ~Visit() {
      if (listGone) return;
      list.visits_ = outer;
      if (!outer) list.compact();
    }
    NotifieeList& list;
    Visit* outer;
    bool listGone = false;
  };

  void compact();
  void reportException(size_t index, NotifieeBase* member, const std::exception& e);

  void memberLeft(NotifieeBase* member);

  std::vector<NotifieeBase*> members_;  // null slots are members removed during a visit
  std::vector<NotifieeBase*> silent_;
  size_t count_ = 0;
  Visit* visits_ = nullptr;
};

}  // namespace Orb
