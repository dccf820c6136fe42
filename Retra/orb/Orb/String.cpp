#include "Orb/String.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <ostream>

#include "Orb/PtrInterface.h"

namespace Orb {

String::Rep* String::Rep::make(const char* bytes, size_t length, size_t copied) {
  void* memory = std::malloc(offsetof(Rep, data) + length + 1);
  if (!memory) throw std::bad_alloc();
  Rep* rep = new (memory) Rep;
  rep->refs.store(1, std::memory_order_relaxed);
  rep->hashCache.store(0, std::memory_order_relaxed);
  rep->length = length;
  if (copied) std::memcpy(rep->data, bytes, copied);
  rep->data[length] = '\0';
  return rep;
}

void String::Rep::release(Rep* rep) noexcept {
  rep->~Rep();
  std::free(rep);
}

String::String(const char* data, size_t length) {
  if (length) rep_ = Rep::make(data, length);
}

String& String::operator=(const String& o) noexcept {
  if (o.rep_) o.rep_->newRef();
  if (rep_) rep_->deleteRef();
  rep_ = o.rep_;
  return *this;
}

String& String::operator=(String&& o) noexcept {
  if (this != &o) {
    if (rep_) rep_->deleteRef();
    rep_ = o.rep_;
    o.rep_ = nullptr;
  }
  return *this;
}

uint32_t String::hash() const noexcept {
  if (!rep_) return hashBytes("", 0);
  uint64_t cached = rep_->hashCache.load(std::memory_order_relaxed);
  if (!(cached & Rep::kHashKnown)) {
    cached = Rep::kHashKnown | hashBytes(rep_->data, rep_->length);
    rep_->hashCache.store(cached, std::memory_order_relaxed);
  }
  return static_cast<uint32_t>(cached);
}

String operator+(const String& a, const String& b) {
  if (a.empty()) return b;
  if (b.empty()) return a;
  String result;
  result.rep_ = String::Rep::make(a.charPtr(), a.size() + b.size(), a.size());
  std::memcpy(result.rep_->data + a.size(), b.charPtr(), b.size());
  return result;
}

std::ostream& operator<<(std::ostream& out, const String& s) {
  return out.write(s.charPtr(), std::streamsize(s.size()));
}

namespace {
inline uint32_t rotl(uint32_t x, int r) {
  return (x << r) | (x >> (32 - r));
}
inline uint32_t fmix(uint32_t h) {
  h ^= h >> 16;
  h *= 0x85ebca6b;
  h ^= h >> 13;
  h *= 0xc2b2ae35;
  h ^= h >> 16;
  return h;
}
}  // namespace

uint32_t hashBytes(const void* data, size_t length, uint32_t seed) noexcept {
  const auto* bytes = static_cast<const unsigned char*>(data);
  const uint32_t c1 = 0xcc9e2d51, c2 = 0x1b873593;
  uint32_t h = seed;
  size_t blocks = length / 4;
  for (size_t i = 0; i < blocks; ++i) {
    uint32_t k;
    std::memcpy(&k, bytes + i * 4, 4);
    k *= c1;
    k = rotl(k, 15);
    k *= c2;
    h ^= k;
    h = rotl(h, 13);
    h = h * 5 + 0xe6546b64;
  }
  const unsigned char* tail = bytes + blocks * 4;
  uint32_t k = 0;
  switch (length & 3) {
    case 3:
      k ^= uint32_t(tail[2]) << 16;
      [[fallthrough]];
    case 2:
      k ^= uint32_t(tail[1]) << 8;
      [[fallthrough]];
    case 1:
      k ^= tail[0];
      k *= c1;
      k = rotl(k, 15);
      k *= c2;
      h ^= k;
  }
  h ^= uint32_t(length);
  return fmix(h);
}

uint32_t hashU64(uint64_t value) noexcept {
  value ^= value >> 33;
  value *= 0xff51afd7ed558ccdULL;
  value ^= value >> 33;
  value *= 0xc4ceb9fe1a85ec53ULL;
  value ^= value >> 33;
  return uint32_t(value);
}

}  // namespace Orb
