#pragma once

#include <atomic>
#include <cstdint>

namespace Orb {

// Process-wide switch: when on, reference counts change atomically (several threads may hold
// pointers to one object); when off, they are plain loads and stores. Off by default: the
// activity loop is single-threaded.
void threadSafePointersIs(bool on);
[[nodiscard]] bool threadSafePointers();

// Base of every reference-counted object. The count starts at zero; `Ptr` takes and drops
// references, and `handleZeroRef()` runs when the last one goes (by default it deletes).
class PtrInterface {
 public:
  PtrInterface() = default;
  // A copy is a new object: it starts without references.
  PtrInterface(const PtrInterface&) : refs_(0) {}
  PtrInterface& operator=(const PtrInterface&) { return *this; }

  [[nodiscard]] uint32_t references() const { return refs_.load(std::memory_order_relaxed); }
  void newRef() const;
  void deleteRef() const;

 protected:
  virtual ~PtrInterface() = default;
  // Called once the count has dropped to zero.
  virtual void handleZeroRef() const { delete this; }

 private:
  mutable std::atomic<uint32_t> refs_{0};
};

}  // namespace Orb
