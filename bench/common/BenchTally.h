#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/BenchOptions.h"

namespace RetraBench {

// What one finished request reports, whichever program ran it.
struct Outcome {
  size_t index = 0;
  long status = 0;
  bool transferOk = false;         // the transfer itself succeeded (no transport or library error)
  std::string error;               // why not, when it did not
  uint64_t bodyBytes = 0;          // the body kept in memory (ignored when written to a file)
  long long announcedLength = -1;  // the response's Content-Length, -1 when there was none
};

// Checks each finished request and keeps the totals: status 200, no error, and the body (in
// memory, or the file at `outputPath`) exactly the expected size, which is --expect-size or
// else the announced Content-Length. A request reported twice is a failure too.
//
//   BenchTally tally(options);
//   tally.record(outcome);           // once per finished request
//   if (tally.allFinished()) ...     // every request has been recorded
//   return tally.failures() == 0 ? 0 : 1;
class BenchTally {
 public:
  explicit BenchTally(const BenchOptions& options);

  void record(const Outcome& outcome);

  [[nodiscard]] bool allFinished() const noexcept { return finished_ == seen_.size(); }
  [[nodiscard]] size_t finished() const noexcept { return finished_; }
  [[nodiscard]] size_t failures() const noexcept { return failures_; }
  [[nodiscard]] uint64_t bytes() const noexcept { return bytes_; }
  // The first few failures, one line each, for the error stream.
  [[nodiscard]] const std::vector<std::string>& failureLines() const noexcept {
    return failureLines_;
  }

 private:
  void fail(size_t index, const std::string& why);

  const BenchOptions& options_;
  std::vector<bool> seen_;
  size_t finished_ = 0;
  size_t failures_ = 0;
  uint64_t bytes_ = 0;
  std::vector<std::string> failureLines_;
};

}  // namespace RetraBench
