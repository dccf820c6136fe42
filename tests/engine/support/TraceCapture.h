#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace EngineTest {

// Captures every "RetraLib" trace line (levels 0 to 9) while it lives; the output and the
// configuration go back to none when it ends.
//
//   EngineTest::TraceCapture trace;
//   ... run the engine ...
//   EXPECT_TRUE(trace.has(2, "handleInitialized"));
class TraceCapture {
 public:
  struct Line {
    unsigned level = 0;
    std::string function;
    std::string message;
  };

  TraceCapture();
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // The lines written so far, in order.
  [[nodiscard]] std::vector<Line> lines() const;
  // The messages written so far, in order.
  [[nodiscard]] std::vector<std::string> messages() const;
  // Whether a line at `level` has exactly `message`.
  [[nodiscard]] bool has(unsigned level, const std::string& message) const;
  // How many messages begin with `prefix`.
  [[nodiscard]] size_t countStartingWith(const std::string& prefix) const;
  // Forgets what was written so far.
  void clear();

 private:
  std::ostringstream out_;
};

}  // namespace EngineTest
