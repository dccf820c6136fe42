#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace RetraBench {

// The command line shared by the two benchmark programs (retra-bench and curl-baseline), so
// that both are asked for exactly the same job:
//
//   retra-bench http://127.0.0.1:8080/1k.bin 10000
//   curl-baseline urls.txt 100 --output-dir /tmp/out --expect-size 1024 --keep
//
// SOURCE is a URL (http:// or https://) or a file with one URL per line; COUNT requests are
// spread over its URLs in turn.
struct BenchOptions {
  std::string program;                 // name used in messages and in the JSON line
  std::vector<std::string> urls;       // at least one
  size_t count = 1;                    // requests written at once
  std::string outputDir;               // non-empty: each body goes to a file in it
  std::vector<std::string> hosts;      // non-empty: request i asks hosts[i % size] instead
  bool keep = false;                   // keep every response until the process exits
  std::optional<uint64_t> expectSize;  // else each body must match its Content-Length
  unsigned timeoutSeconds = 3600;      // connect and whole-transfer limit of every request
  size_t window = 0;                   // curl-baseline only: at most this many easy handles in
                                       // the multi handle at once (0: all at once)
  std::string retrad;                  // retra-remote-bench only: the service program it starts
};

// What parsing the command line asks the program to do.
struct ParsedCommandLine {
  enum class Outcome { run, exit };
  Outcome outcome = Outcome::run;
  int exitStatus = 0;  // when `outcome` is exit: 0 after --help, 2 after a usage error
  BenchOptions options;
};

// Reads argv (retra-remote-bench also takes, and needs, --retrad PATH). Help and usage errors are
// printed here (stdout and stderr).
[[nodiscard]] ParsedCommandLine parseCommandLine(const std::string& program, int argc, char** argv);

}  // namespace RetraBench
