#pragma once

#include "Orb/NotifieeList.h"
#include "Orb/Ptr.h"

namespace Orb {

// Observer of one notifier of type `Notifier` (anything with `NotifieeList& notifiees() const`).
// Entity types derive their `NotifieeConst` from it and add one virtual `on...` callback per
// attribute. By default the observer holds a strong reference to its notifier; a weak one does
// not keep the notifier alive and is told (`handleNotifierGone`) when it goes, registered or
// not: a connected observer is always in its notifier's list, as a silent member while it is
// unregistered or after the notifier dropped it (`deleteAll`).
//
//   class Watcher : public Response::NotifieeConst {
//     void onStatusCode() override { ... }
//   };
//   auto w = Orb::allocate<Watcher>();
//   w->notifierIs(response);     // registered; onNotifierConnected() runs
template <class Notifier>
class BaseNotifiee : public NotifieeBase {
 public:
  using NotifierType = Notifier;

  [[nodiscard]] Ptr<const Notifier> notifier() const { return Ptr<const Notifier>(notifier_); }
  [[nodiscard]] const Notifier* notifierPtr() const noexcept { return notifier_; }

  // Connects to `n` (or disconnects with null). A connected, registered observer gets
  // `onNotifierConnected()` at once, which is where reactors replay the current state.
  void notifierIs(const Ptr<const Notifier>& n) { notifierIs(n.ptr()); }
  void notifierIs(const Notifier* n) {
    if (n == notifier_) return;
    detach();
    notifier_ = n;
    if (!notifier_) return;
    if (!weak_) notifier_->newRef();
    if (registered_) {
      notifier_->notifiees().newMember(this);
      onNotifierConnected();
    } else {
      notifier_->notifiees().newSilentMember(this);
    }
  }

  [[nodiscard]] bool isWeakReference() const noexcept { return weak_; }
  void isWeakReferenceIs(bool weak) {
    if (weak == weak_) return;
    weak_ = weak;
    if (!notifier_) return;
    if (weak) {
      notifier_->deleteRef();  // may destroy the notifier, which then clears notifier_
    } else {
      notifier_->newRef();
    }
  }

  // Whether the observer wants callbacks. Off keeps the notifier and stays in its list as a
  // silent member; on receives callbacks again and replays like a new connection.
  [[nodiscard]] bool isRegisteredNotifiee() const noexcept { return registered_; }
  void isRegisteredNotifieeIs(bool registered) {
    if (registered == registered_) return;
    registered_ = registered;
    if (!notifier_) return;
    if (registered) {
      notifier_->notifiees().newMember(this);
      onNotifierConnected();
    } else {
      notifier_->notifiees().newSilentMember(this);
    }
  }

 protected:
  BaseNotifiee() = default;
  ~BaseNotifiee() override {
    tearingDownIs(true);
    detach();
  }

  // Runs when the observer has joined a notifier's list (connection or re-registration).
  virtual void onNotifierConnected() {}

  void handleNotifierGone() override { notifier_ = nullptr; }

 private:
  void detach() {
    const Notifier* old = notifier_;
    if (!old) return;
    old->notifiees().deleteMember(this);
    notifier_ = nullptr;
    if (!weak_) old->deleteRef();
  }

  const Notifier* notifier_ = nullptr;
  bool weak_ = false;
  bool registered_ = true;
};

}  // namespace Orb
