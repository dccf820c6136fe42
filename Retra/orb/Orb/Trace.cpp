#include "Orb/Trace.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace Orb {

namespace {

struct Registry {
  std::mutex mutex;
  std::vector<TraceHandle*> handles;
  std::ostream* output = nullptr;
  std::ofstream file;
  std::optional<std::string> configuration;  // set by configurationIs; else ORB_TRACE applies
  bool environmentRead = false;              // ORB_TRACE's malformed items have been reported
};

Registry& registry() {
  static Registry* r = new Registry;  // outlives every handle, even those of static objects
  return *r;
}

std::ostream& defaultOutput(Registry& r) {
  if (!r.file.is_open()) {
    if (const char* path = std::getenv("ORB_TRACE_FILE"); path && *path) {
      r.file.open(path, std::ios::app);
    }
  }
  return r.file.is_open() ? static_cast<std::ostream&>(r.file) : std::cerr;
}

// "3" (levels 1 to 3), "0-9" or "*" into a level mask; nothing for malformed text.
std::optional<uint32_t> levelsOf(std::string_view text) {
  if (text.empty() || text == "*") return ~0u;
  auto number = [](std::string_view t, unsigned& out) {
    auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), out);
    return ec == std::errc() && end == t.data() + t.size() && out <= TraceHandle::maxLevel;
  };
  unsigned low = 1, high = 0;
  if (auto dash = text.find('-'); dash != std::string_view::npos) {
    if (!number(text.substr(0, dash), low) || !number(text.substr(dash + 1), high) || low > high) {
      return std::nullopt;
    }
  } else if (!number(text, high)) {
    return std::nullopt;
  }
  uint32_t mask = 0;
  for (unsigned l = low; l <= high; ++l) mask |= 1u << l;
  return mask;
}

// Calls `item(name, levels)` for each well-formed item of a configuration text and
// `malformed(item)` for each other non-empty one.
template <class Item, class Malformed>
void itemsRead(std::string_view text, Item item, Malformed malformed) {
  while (!text.empty()) {
    auto comma = text.find(',');
    std::string_view entry = text.substr(0, comma);
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    if (entry.empty()) continue;
    auto slash = entry.find('/');
    std::string_view name = entry.substr(0, slash);
    auto levels =
        levelsOf(slash == std::string_view::npos ? std::string_view() : entry.substr(slash + 1));
    if (name.empty() || !levels || (slash != std::string_view::npos && slash + 1 == entry.size())) {
      malformed(entry);
    } else {
      item(name, *levels);
    }
  }
}

// Names each malformed item of `text` on the trace output, once per text taken up.
void malformedItemsReported(Registry& r, std::string_view text) {
  itemsRead(
      text, [](std::string_view, uint32_t) {},
      [&](std::string_view entry) {
        std::ostream& out = r.output ? *r.output : defaultOutput(r);
        out << "ORB_TRACE: ignoring malformed item '" << entry
            << "' (expected facility, facility/N for levels 1 to N, or facility/low-high)\n";
        out.flush();
      });
}

}  // namespace

uint32_t TraceHandle::levelsFor(std::string_view text, std::string_view facility) {
  uint32_t mask = 0;
  itemsRead(
      text,
      [&](std::string_view name, uint32_t levels) {
        if (name == "*" || name == facility) mask |= levels;
      },
      [](std::string_view) {});
  return mask;
}

TraceHandle::TraceHandle(String facility, bool fromEnvironment) : facility_(std::move(facility)) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (fromEnvironment) {
    if (r.configuration) {
      levels_ = levelsFor(*r.configuration, facility_.view());
    } else if (const char* text = std::getenv("ORB_TRACE")) {
      levels_ = levelsFor(text, facility_.view());
      if (!std::exchange(r.environmentRead, true)) malformedItemsReported(r, text);
    }
  }
  r.handles.push_back(this);
}

TraceHandle::~TraceHandle() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  std::erase(r.handles, this);
}

void TraceHandle::configurationIs(std::string_view text) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.configuration = std::string(text);
  for (TraceHandle* h : r.handles) h->levels_ = levelsFor(text, h->facility_.view());
  malformedItemsReported(r, text);
}

void TraceHandle::outputIs(std::ostream* out) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.output = out;
}

std::string_view TraceHelper::Buffer::text() const {
  if (!spill_.empty()) return spill_;
  return {pbase(), size_t(pptr() - pbase())};
}

TraceHelper::Buffer::int_type TraceHelper::Buffer::overflow(int_type c) {
  if (spill_.empty()) spill_.assign(pbase(), pptr());
  setp(nullptr, nullptr);
  if (!traits_type::eq_int_type(c, traits_type::eof())) spill_.push_back(char(c));
  return traits_type::not_eof(c);
}

std::streamsize TraceHelper::Buffer::xsputn(const char* s, std::streamsize n) {
  if (spill_.empty() && epptr() - pptr() >= n) {
    traits_type::copy(pptr(), s, size_t(n));
    pbump(int(n));
    return n;
  }
  if (spill_.empty()) spill_.assign(pbase(), pptr());
  setp(nullptr, nullptr);
  spill_.append(s, size_t(n));
  return n;
}

TraceHelper::TraceHelper(const TraceHandle& handle, unsigned level, char* buffer, size_t size)
    : handle_(handle), level_(level), buffer_(buffer, size), stream_(&buffer_) {}

void TraceHelper::trace(const char* file, int line, const char* function) {
  using namespace std::chrono;
  auto now = system_clock::now();
  std::time_t seconds = system_clock::to_time_t(now);
  auto micros = duration_cast<microseconds>(now.time_since_epoch()).count() % 1000000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char stamp[40];
  size_t n = std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(stamp + n, sizeof stamp - n, ".%06lldZ", static_cast<long long>(micros));

  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  std::ostream& out = r.output ? *r.output : defaultOutput(r);
  out << stamp << ' ' << handle_.facility() << ' ' << level_ << ' ' << file << ':' << line << ' '
      << function << ": " << buffer_.text() << '\n';
  out.flush();
}

TraceHandle& frameworkTrace() {
  static TraceHandle* handle = new TraceHandle("Orb", true);  // kept until exit
  return *handle;
}

}  // namespace Orb
