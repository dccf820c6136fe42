#pragma once

#include <atomic>
#include <cstdint>

namespace Orb {

// Process-wide switch: when on, reference counts change atomically (several threads may hold
// pointers to one object); when off, they are plain loads and stores. Off by default: the
// activity loop is single-threaded.
void threadSafePointersIs(bool on);

namespace internal {
// The switch itself; read inline, since every reference change asks it.
inline std::atomic<bool> threadSafePointersOn{false};
}  // namespace internal

[[nodiscard]] inline bool threadSafePointers() {
  return internal::threadSafePointersOn.load(std::memory_order_acquire);
}

// Base of every reference-counted object. The count starts at zero; `Ptr` takes and drops
// references, and `handleZeroRef()` runs when the last one goes (by default it deletes).
class PtrInterface {
 public:
  PtrInterface() = default;
  // A copy is a new object: it starts without references.
  PtrInterface(const PtrInterface&) : refs_(0) {}
  PtrInterface& operator=(const PtrInterface&) { return *this; }

  [[nodiscard]] uint32_t references() const { return refs_.load(std::memory_order_relaxed); }
  // Inline: counted pointers change counts all the time, and the plain case is two moves.
  void newRef() const {
    if (internal::threadSafePointersOn.load(std::memory_order_relaxed)) {
      refs_.fetch_add(1, std::memory_order_relaxed);
    } else {
      refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  void deleteRef() const {
    uint32_t left;
    if (internal::threadSafePointersOn.load(std::memory_order_relaxed)) {
      left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = refs_.load(std::memory_order_relaxed) - 1;
      refs_.store(left, std::memory_order_relaxed);
    }
    if (left == 0) handleZeroRef();
  }

 protected:
  virtual ~PtrInterface() = default;
  // Called once the count has dropped to zero.
  virtual void handleZeroRef() const { delete this; }

 private:
  mutable std::atomic<uint32_t> refs_{0};
};

}  // namespace Orb
