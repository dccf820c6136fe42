#pragma once

#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "Orb/String.h"

namespace Retra {

// The texts of received header fields, shared between responses. Every response of a server
// carries the same few names, and most values (server, type, length, connection) repeat from
// one response to the next: handing out the buffer kept from before saves two allocations per
// header line and the memory of every kept copy. Strings never change, so sharing one is not
// observable.
//
// It keeps the first `maxNames` names it sees, each with the last value seen under it; other
// names get new strings each time.
//
//   HeaderFieldCache cache;
//   auto [name, value] = cache.field("Server", "nginx");   // the same buffers next time
class HeaderFieldCache {
 public:
  static constexpr size_t maxNames = 32;

  // The name and value as strings, reusing the kept buffers when the texts are equal.
  [[nodiscard]] std::pair<Orb::String, Orb::String> field(std::string_view name,
                                                          std::string_view value);

 private:
  struct Entry {
    Orb::String name;
    Orb::String value;
  };
  std::vector<Entry> entries_;
};

}  // namespace Retra
