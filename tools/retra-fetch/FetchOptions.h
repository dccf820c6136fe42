#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Retra/model/Request.h"
#include "toolkit/RequestOptions.h"

namespace RetraFetch {

// What a retra-fetch command line asks for, checked and converted: the request options the tools
// share (RetraTool::RequestOptions), and what retra-fetch does with the requests.
//
//   retra-fetch -H 'Accept: text/plain' -m 10 http://127.0.0.1:8080/a http://127.0.0.1:8080/b
struct FetchOptions : RetraTool::RequestOptions {
  std::vector<std::string> urls;          // in the order given; no URL twice
  std::string outputDir;                  // --output-dir: every body into a file there
  bool verbose = false;                   // -v
  std::optional<std::string> dnsServers;  // --dns-servers, the resolver's servers
  bool include = false;                   // -i
  bool silent = false;                    // -s
  bool watch = false;                     // --watch
  std::optional<uint32_t> count;          // --count, fetches of each request when watching
  bool stats = false;                     // --stats
  bool json = false;                      // --json
};

// The outcome of reading a command line: options to run with, a text to print before exiting
// with status 0 (--help, --version), or a usage error whose message names the bad option or
// value.
struct CommandLine {
  enum class Outcome { run, exit, usageError };

  Outcome outcome = Outcome::run;
  FetchOptions options;
  std::string message;
};

// Reads `args` (program name first, as in argv). Fractional seconds are rounded up to whole
// seconds, the unit of the library's time-outs.
//
//   auto line = RetraFetch::parseCommandLine({"retra-fetch", "-X", "FETCH", "http://x/"});
//   line.outcome;   // Outcome::usageError
//   line.message;   // "-X/--request: unknown method 'FETCH' (one of OPTIONS, GET, ...)"
[[nodiscard]] CommandLine parseCommandLine(const std::vector<std::string>& args);

// The file each URL's body goes to, in URL order; empty for standard output. With
// --output-dir a URL's file is named after the last segment of its path ("index.html" when
// there is none), and a name already taken gets "-2", "-3" ... before its extension.
[[nodiscard]] std::vector<std::string> outputPathsFor(const FetchOptions& options);

// The requests the options describe, one per URL in order. Time-outs follow curl: -m bounds the
// whole transfer, the connection phase included, so the connect time-out never exceeds it.
[[nodiscard]] std::vector<Retra::Request> requestsFor(const FetchOptions& options);

}  // namespace RetraFetch
