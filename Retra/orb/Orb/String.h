#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

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
  String(const String& o) noexcept;
  String(String&& o) noexcept : rep_(o.rep_) { o.rep_ = nullptr; }
  ~String();

  String& operator=(const String& o) noexcept;
  String& operator=(String&& o) noexcept;
  String& operator=(const char* text) { return *this = String(text); }

  [[nodiscard]] const char* charPtr() const noexcept;
  [[nodiscard]] size_t size() const noexcept;
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
  struct Rep;
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
