#pragma once

#include <cstdint>
#include <functional>
#include <type_traits>
#include <unordered_map>

#include "Orb/String.h"

namespace Orb {

// Hash of a collection key: the key type's own `hash()` where it has one; 64-bit integers and
// pointers through `hashU64`; other integers as they are.
template <class K>
[[nodiscard]] uint32_t keyHash(const K& key) noexcept {
  if constexpr (requires { key.hash(); }) {
    return static_cast<uint32_t>(key.hash());
  } else if constexpr (std::is_pointer_v<K>) {
    return hashU64(reinterpret_cast<uintptr_t>(key));
  } else if constexpr (std::is_integral_v<K> && sizeof(K) > 4) {
    return hashU64(static_cast<uint64_t>(key));
  } else if constexpr (std::is_integral_v<K> || std::is_enum_v<K>) {
    return hashU64(static_cast<uint64_t>(key));
  } else {
    return static_cast<uint32_t>(std::hash<K>()(key));
  }
}

template <class K>
struct KeyHasher {
  size_t operator()(const K& key) const noexcept { return keyHash(key); }
};

}  // namespace Orb

#if defined(__GLIBCXX__)
// libstdc++ keeps each node's hash only for hashers it deems slow, and takes a noexcept custom
// hasher for a fast one. Without the kept hash every look-up rehashes the keys it walks past,
// reading each key's string buffer: with many members that is a cache miss per node. Keeping
// the hash costs 8 bytes a node and compares keys only when the hashes match.
template <class K>
struct std::__is_fast_hash<Orb::KeyHasher<K>> : std::false_type {};
#endif

namespace Orb {

// The framework's keyed collection: a hash map whose hashing calls the key's own `hash()`.
// Find, insert, replace, delete and iteration are those of `std::unordered_map`.
template <class K, class V>
using HashMap = std::unordered_map<K, V, KeyHasher<K>>;

}  // namespace Orb
