#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Retrad {

// What a retrad command line asks for. Paths left empty on the command line get the instance's
// defaults (see `parseCommandLine`).
struct ServiceOptions {
  bool system = false;                // --system: the machine-wide instance
  std::string socketPath;             // --socket
  std::string statePath;              // --state: the request store
  std::string outputDir;              // --output-dir: where a system instance writes output files
  uint32_t maxRequests = 100000;      // --max-requests, per uid
  size_t maxQueuedBytes = 64u << 20;  // --max-queue: a client's unread messages
  std::string metricsListen;          // --metrics-listen ADDR:PORT
  std::string trace;                  // --trace, in ORB_TRACE's form
};

struct CommandLine {
  enum class Outcome { run, exit, usageError };
  Outcome outcome = Outcome::run;
  ServiceOptions options;
  std::string message;
};

// Reads `args` (program name first). Defaults: a per-user instance listens on
// $XDG_RUNTIME_DIR/retra/retrad.sock and keeps its requests in
// $XDG_STATE_HOME/retra/requests.db (~/.local/state/...); a system instance on
// /run/retra/retrad.sock and /var/lib/retra/requests.db.
[[nodiscard]] CommandLine parseCommandLine(const std::vector<std::string>& args);

}  // namespace Retrad
