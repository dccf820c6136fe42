#include "Retra/request/HeaderFieldCache.h"

namespace Retra {

std::pair<Orb::String, Orb::String> HeaderFieldCache::field(std::string_view name,
                                                            std::string_view value) {
  for (Entry& entry : entries_) {
    if (entry.name.view() != name) continue;
    if (entry.value.view() != value) entry.value = Orb::String(value);
    return {entry.name, entry.value};
  }
  if (entries_.size() == maxNames) return {Orb::String(name), Orb::String(value)};
  entries_.push_back(Entry{Orb::String(name), Orb::String(value)});
  return {entries_.back().name, entries_.back().value};
}

}  // namespace Retra
