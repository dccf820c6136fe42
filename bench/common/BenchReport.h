#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace RetraBench {

// The measurements one benchmark run prints, as one JSON line on stdout, which bench/run reads:
//
//   {"program":"retra-bench","requests":10000,"failures":0,"seconds":0.91,...}
//
// `seconds` runs from the first request written to the last one finished. The process's own
// CPU time, peak RSS so far and current RSS are added when the line is made; with --keep the
// programs first give free heap memory back (malloc_trim), so that the current RSS is what the
// kept responses hold, without the peak of the requests still waiting earlier on.
struct BenchReport {
  std::string program;
  size_t requests = 0;
  size_t failures = 0;
  double seconds = 0;
  uint64_t bytes = 0;                     // body bytes of the requests that passed
  double startSeconds = 0;                // bringing the client up, before the first write
  std::optional<double> teardownSeconds;  // taking it down again (absent with --keep)
  bool kept = false;
  // retra-remote-bench only: the service's resident memory growth from before the first write
  // to the last finish, and its CPU time (user + system) over its whole life.
  std::optional<long> serviceRssGrowthKib;
  std::optional<double> serviceCpuSeconds;
};

// The JSON line, newline included.
[[nodiscard]] std::string jsonLine(const BenchReport& report);

class BenchTally;
struct BenchOptions;

// Ends a run the same way for both programs: the failures on stderr, the JSON line on stdout,
// and the exit status (0 when every request passed). With --keep, free heap goes back to the
// system first and the process ends here, every response or body still alive.
[[nodiscard]] int finishRun(const BenchOptions& options, const BenchTally& tally,
                            const BenchReport& report);

// Seconds on a monotonic clock, for differences.
[[nodiscard]] double monotonicSeconds();

}  // namespace RetraBench
