#include "Orb/PtrInterface.h"

namespace Orb {

namespace {
std::atomic<bool> threadSafe{false};
}

void threadSafePointersIs(bool on) { threadSafe.store(on, std::memory_order_release); }

bool threadSafePointers() { return threadSafe.load(std::memory_order_acquire); }

void PtrInterface::newRef() const {
  if (threadSafe.load(std::memory_order_relaxed)) {
    refs_.fetch_add(1, std::memory_order_relaxed);
  } else {
    refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
}

void PtrInterface::deleteRef() const {
  uint32_t left;
  if (threadSafe.load(std::memory_order_relaxed)) {
    left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  } else {
    left = refs_.load(std::memory_order_relaxed) - 1;
    refs_.store(left, std::memory_order_relaxed);
  }
  if (left == 0) handleZeroRef();
}

}  // namespace Orb
