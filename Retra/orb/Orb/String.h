#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Orb/PtrInterface.h"

namespace Orb {

// Immutable, reference-counted byte string. Copies share one buffer; the empty string has none.
// The bytes may hold anything, NUL included; `charPtr()` is always NUL-terminated.
class String {
 public:
  using const_iterator = const char*;
  using iterator = const char*;

  String() noexcept = default;
  String(const char* text) : String(text, text ? std::strlen(text) : 0) {}
  String(const char* data, size_t length);
  String(std::string_view text) : String(text.data(), text.size()) {}
  String(const std::string& text) : String(text.data(), text.size()) {}
  String(const_iterator begin, const_iterator end) : String(begin, size_t(end - begin)) {}
  String(const String& o) noexcept : rep_(o.rep_) {
    if (rep_) rep_->newRef();
  }
  String(String&& o) noexcept : rep_(o.rep_) { o.rep_ = nullptr; }
  ~String() {
    if (rep_) rep_->deleteRef();
  }

  String& operator=(const String& o) noexcept;
  String& operator=(String&& o) noexcept;
  String& operator=(const char* text) { return *this = String(text); }

  [[nodiscard]] const char* charPtr() const noexcept { return rep_ ? rep_->data : ""; }
  [[nodiscard]] size_t size() const noexcept { return rep_ ? rep_->length : 0; }
  [[nodiscard]] bool empty() const noexcept { return size() == 0; }
  [[nodiscard]] std::string_view view() const noexcept { return {charPtr(), size()}; }
  [[nodiscard]] std::string str() const { return std::string(view()); }

  [[nodiscard]] const_iterator begin() const noexcept { return charPtr(); }
  [[nodiscard]] const_iterator end() const noexcept { return charPtr() + size(); }
  // Iterator at byte `index` (clamped to the end).
  [[nodiscard]] const_iterator iter(size_t index) const noexcept {
    return begin() + (index < size() ? index : size());
  }

  // 32-bit MurmurHash3 of the bytes: equal strings hash equal, and nearby strings spread well.
  [[nodiscard]] uint32_t hash() const noexcept;

  friend String operator+(const String& a, const String& b);
  friend bool operator==(const String& a, const String& b) noexcept {
    return a.rep_ == b.rep_ || a.view() == b.view();
  }
  friend bool operator==(const String& a, const char* b) noexcept {
    return a.view() == std::string_view(b ? b : "");
  }
  friend bool operator<(const String& a, const String& b) noexcept { return a.view() < b.view(); }
  friend std::strong_ordering operator<=>(const String& a, const String& b) noexcept {
    return a.view() <=> b.view();
  }

 private:
  // Shared buffer: count, length, the hash once computed, then the bytes and a NUL. Defined
  // here so that copies, destruction and the accessors inline: strings are copied everywhere.
  struct Rep {
    // Marks `hashCache` as holding the hash in its low 32 bits.
    static constexpr uint64_t kHashKnown = uint64_t(1) << 32;

    std::atomic<uint32_t> refs;
    // Keys are hashed on every look-up; the bytes never change, so the hash is kept. Relaxed
    // atomics: threads sharing a buffer at worst compute the same value twice.
    std::atomic<uint64_t> hashCache;
    size_t length;
    char data[1];

    // A buffer of `length` bytes: the first `copied` from `bytes`, the rest left for the
    // caller.
    static Rep* make(const char* bytes, size_t length, size_t copied);
    static Rep* make(const char* bytes, size_t length) { return make(bytes, length, length); }

    void newRef() noexcept {
      if (threadSafePointers()) {
        refs.fetch_add(1, std::memory_order_relaxed);
      } else {
        refs.store(refs.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
      }
    }
    void deleteRef() noexcept {
      uint32_t left;
      if (threadSafePointers()) {
        left = refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
      } else {
        left = refs.load(std::memory_order_relaxed) - 1;
        refs.store(left, std::memory_order_relaxed);
      }
      if (left == 0) release(this);
    }
    // Frees the buffer once the last reference has gone.
    static void release(Rep* rep) noexcept;
  };
  Rep* rep_ = nullptr;
};

// Writes the bytes as they are.
std::ostream& operator<<(std::ostream& out, const String& s);

// 32-bit MurmurHash3 (x86, seed 0) of a byte range.
[[nodiscard]] uint32_t hashBytes(const void* data, size_t length, uint32_t seed = 0) noexcept;
// Mixes a 64-bit integer into a well-spread 32-bit hash.
[[nodiscard]] uint32_t hashU64(uint64_t value) noexcept;

}  // namespace Orb

template <>
struct std::hash<Orb::String> {
  size_t operator()(const Orb::String& s) const noexcept { return s.hash(); }
};
