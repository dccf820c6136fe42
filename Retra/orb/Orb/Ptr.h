#pragma once

#include <cstddef>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

#include "Orb/Exception.h"
#include "Orb/PtrInterface.h"

namespace Orb {

// Intrusive strong pointer to a `PtrInterface`: copying takes a reference, destruction drops
// it. `Ptr<const T>` is the read-only form.
//
//   Orb::Ptr<Response> r = Orb::allocate<Response>(key);
//   Orb::Ptr<const Response> view = r;
template <class T>
class Ptr {
 public:
  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) { acquire(); }
  Ptr(const Ptr& o) noexcept : p_(o.p_) { acquire(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& o) noexcept : p_(o.ptr()) {
    acquire();
  }
  ~Ptr() { release(); }

  Ptr& operator=(const Ptr& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) noexcept {
    Ptr(p).swap(*this);
    return *this;
  }

  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  [[nodiscard]] T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  bool operator!() const noexcept { return p_ == nullptr; }

  template <class U>
  bool operator==(const Ptr<U>& o) const noexcept {
    return p_ == o.ptr();
  }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
  bool operator==(const T* p) const noexcept { return p_ == p; }

 private:
  void acquire() const noexcept {
    if (p_) p_->newRef();
  }
  void release() noexcept {
    if (T* p = std::exchange(p_, nullptr)) p->deleteRef();
  }

  T* p_ = nullptr;
};

template <class T, class U>
[[nodiscard]] Ptr<T> ptr_cast(const Ptr<U>& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

template <class T, class U>
[[nodiscard]] Ptr<T> const_ptr_cast(const Ptr<U>& p) {
  return Ptr<T>(const_cast<T*>(p.ptr()));
}

// Creates an object and returns the first reference to it. An allocation that yields nothing
// raises the range exception "null ValidPtr". A type that can switch its notification on gets it
// switched on once constructed, so that a new engine or root is live as soon as it exists.
template <class T, class... Args>
[[nodiscard]] Ptr<T> allocate(Args&&... args) {
  T* p = new (std::nothrow) T(std::forward<Args>(args)...);
  if (!p) throwRangeException("null ValidPtr");
  Ptr<T> result(p);
  if constexpr (requires { p->hasNotificationActiveIs(true); }) p->hasNotificationActiveIs(true);
  return result;
}

}  // namespace Orb

template <class T>
struct std::hash<Orb::Ptr<T>> {
  size_t operator()(const Orb::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
