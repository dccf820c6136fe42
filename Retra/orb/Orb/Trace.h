#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

#include "Orb/String.h"

namespace Orb {

// A trace facility ("RetraLib", "Dnsr", ...) and the levels enabled for it. Which levels are on
// comes from the environment variable ORB_TRACE, a comma-separated list of facility/levels:
//
//   ORB_TRACE=RetraLib/3,Dnsr/2-3       levels 1 to 3 of RetraLib, levels 2 and 3 of Dnsr
//   ORB_TRACE='*/1'     ORB_TRACE=RetraLib/0-9     ORB_TRACE=RetraLib   (all levels)
//
// `Fac/N` enables levels 1 to N, so that failures (level 1) stay on; `Fac/low-high` the levels
// from low to high; `*` stands for every facility or every level. A malformed item ("Dnsr/x",
// "/3", "Dnsr/5-2") is ignored, and the trace output gets one line naming it when the text is
// taken up. Lines go to stderr, or to the file named by ORB_TRACE_FILE. A handle is created once
// per facility and kept until the process exits.
class TraceHandle {
 public:
  static constexpr unsigned maxLevel = 31;

  // `fromEnvironment`: take the enabled levels from ORB_TRACE (else start with none enabled).
  explicit TraceHandle(String facility, bool fromEnvironment = true);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  [[nodiscard]] const String& facility() const noexcept { return facility_; }
  [[nodiscard]] bool isEnabled(unsigned level) const noexcept {
    return level <= maxLevel && (levels_ & (1u << level));
  }
  [[nodiscard]] uint32_t levels() const noexcept { return levels_; }
  void levelsIs(uint32_t mask) noexcept { levels_ = mask; }

  // Applies a configuration text in the ORB_TRACE form to every live handle and to handles made
  // later (tests, hosts); it replaces ORB_TRACE from then on.
  static void configurationIs(std::string_view text);
  // Levels a configuration text enables for one facility, as a bit mask.
  [[nodiscard]] static uint32_t levelsFor(std::string_view text, std::string_view facility);
  // Where lines go; null restores the default (ORB_TRACE_FILE or stderr).
  static void outputIs(std::ostream* out);

 private:
  String facility_;
  uint32_t levels_ = 0;
};

// The framework's own facility, "Orb": faults such as unexpected exceptions are traced there.
[[nodiscard]] TraceHandle& frameworkTrace();

// Composes one trace line. Made only when the level is enabled, so that nothing is formatted
// for a silent facility:
//
//   char buffer[256];
//   if (auto t = Orb::TraceHelper::createIfEnabled(handle, 2, buffer)) {
//     t->stream() << "handleInitialized";
//     t->trace("Retra", __LINE__, __func__);
//   }
class TraceHelper {
 public:
  template <size_t N>
  [[nodiscard]] static std::optional<TraceHelper> createIfEnabled(const TraceHandle& handle,
                                                                  unsigned level,
                                                                  char (&buffer)[N]) {
    if (!handle.isEnabled(level)) return std::nullopt;
    return std::optional<TraceHelper>(std::in_place, handle, level, buffer, N);
  }

  TraceHelper(const TraceHandle& handle, unsigned level, char* buffer, size_t size);
  TraceHelper(const TraceHelper&) = delete;
  TraceHelper& operator=(const TraceHelper&) = delete;

  std::ostream& stream() noexcept { return stream_; }
  // Writes the line: time, facility, level, file:line, function, message.
  void trace(const char* file, int line, const char* function);

 private:
  // Writes into the caller's buffer and spills to the heap only for long messages.
  class Buffer : public std::streambuf {
   public:
    Buffer(char* data, size_t size) { setp(data, data + size); }
    [[nodiscard]] std::string_view text() const;

   protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* s, std::streamsize n) override;

   private:
    std::string spill_;
  };

  const TraceHandle& handle_;
  unsigned level_;
  Buffer buffer_;
  std::ostream stream_;
};

}  // namespace Orb
