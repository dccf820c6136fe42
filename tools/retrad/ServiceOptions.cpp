#include "retrad/ServiceOptions.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <sstream>

namespace Retrad {
namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : "";
}

std::string userRuntimeDir() {
  const std::string runtime = environment("XDG_RUNTIME_DIR");
  return runtime.empty() ? "/run/user/" + std::to_string(::getuid()) : runtime;
}

std::string userStateDir() {
  const std::string state = environment("XDG_STATE_HOME");
  if (!state.empty()) return state;
  return environment("HOME") + "/.local/state";
}

}  // namespace

CommandLine parseCommandLine(const std::vector<std::string>& args) {
  CommandLine line;
  ServiceOptions& o = line.options;
  CLI::App app(
      "retrad: the Retra fetch service. Clients connect over a Unix socket and write "
      "requests; the service fetches them and streams the responses back.",
      "retrad");
  app.set_version_flag("--version", "retrad 1.0.0");
  app.add_flag("--system", o.system,
               "run the machine-wide instance (socket /run/retra/retrad.sock, every uid)");
  app.add_option("--socket", o.socketPath, "the socket to listen on");
  app.add_option("--state", o.statePath, "the SQLite request store");
  app.add_option("--output-dir", o.outputDir,
                 "system instance: output files only inside DIR/UID/ (else refused)");
  app.add_option("--max-requests", o.maxRequests, "requests kept per uid")
      ->check(CLI::Range(1u, 100000000u));
  app.add_option("--max-queue", o.maxQueuedBytes,
                 "bytes queued for a client that does not read before it is disconnected")
      ->check(CLI::Range(size_t(1) << 16, size_t(1) << 34));
  app.add_option("--metrics-listen", o.metricsListen,
                 "serve Prometheus metrics on ADDR:PORT (e.g. 127.0.0.1:9464)");
  app.add_option("--trace", o.trace, "trace facilities and levels, e.g. Retrad/2,RetraLib/1");
  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  try {
    app.parse(int(argv.size()), argv.data());
  } catch (const CLI::CallForHelp&) {
    line.outcome = CommandLine::Outcome::exit;
    line.message = app.help();
    return line;
  } catch (const CLI::CallForVersion&) {
    line.outcome = CommandLine::Outcome::exit;
    line.message = "retrad 1.0.0\n";
    return line;
  } catch (const CLI::ParseError& e) {
    line.outcome = CommandLine::Outcome::usageError;
    line.message = e.what();
    return line;
  }
  if (!o.outputDir.empty() && !o.system) {
    line.outcome = CommandLine::Outcome::usageError;
    line.message = "--output-dir: only for --system (a per-user instance writes as its user)";
    return line;
  }
  if (o.socketPath.empty()) {
    o.socketPath = o.system ? "/run/retra/retrad.sock" : userRuntimeDir() + "/retra/retrad.sock";
  }
  if (o.statePath.empty()) {
    o.statePath = o.system ? "/var/lib/retra/requests.db" : userStateDir() + "/retra/requests.db";
  }
  return line;
}

}  // namespace Retrad
