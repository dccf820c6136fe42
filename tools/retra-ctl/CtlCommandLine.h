#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Retra/model/Enumerations.h"
#include "Retra/model/RequestKey.h"
#include "toolkit/RequestOptions.h"

namespace RetraCtl {

// One retra-ctl command, read from its command line and checked.
//
//   retra-ctl add -H 'Accept: text/plain' --refresh 60 http://127.0.0.1:8080/a
//   retra-ctl --socket /tmp/s/retrad.sock list --json
struct CtlCommand {
  enum class Verb { add, del, list, show, watch, reset, ping };

  Verb verb = Verb::ping;
  std::string socketPath;             // --socket, else RemoteRoot::defaultSocketPath()
  std::string url;                    // the command's URL; empty for watch of every request
  Retra::Method method = Retra::GET;  // -X of del, show, reset and watch
  RetraTool::RequestOptions request;  // add's request options; -o made absolute
  bool json = false;                  // --json of list, show and watch
  std::optional<uint32_t> count;      // watch --count: stop after N finished fetches

  // The key the command names (add: its request's method and URL).
  [[nodiscard]] Retra::RequestKey key() const;
};

// The outcome of reading a command line: a command to run, a text to print before exiting with
// status 0 (--help, --version), or a usage error whose message names the bad option or value.
struct CommandLine {
  enum class Outcome { run, exit, usageError };

  Outcome outcome = Outcome::run;
  CtlCommand command;
  std::string message;
};

// Reads `args` (program name first, as in argv).
//
//   auto line = RetraCtl::parseCommandLine({"retra-ctl", "del", "-X", "POST", "http://h/"});
//   line.command.key();   // POST http://h/
[[nodiscard]] CommandLine parseCommandLine(const std::vector<std::string>& args);

}  // namespace RetraCtl
