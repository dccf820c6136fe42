#include "retra-ctl/CtlCommandLine.h"

#include <unistd.h>

#include <climits>
#include <limits>
#include <memory>

#include <CLI/CLI.hpp>

#include "Retra/remote/RemoteRoot.h"
#include "toolkit/ExitCode.h"

namespace RetraCtl {
namespace {

constexpr const char* kDescription =
    "Controls the Retra fetch service (retrad): adds and withdraws its requests, lists them, shows "
    "and watches their responses.";

// The service runs in another directory: a relative output file is this one's.
std::string absolutePath(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  char cwd[PATH_MAX];
  if (::getcwd(cwd, sizeof cwd) == nullptr) return path;
  return std::string(cwd) + "/" + path;
}

}  // namespace

Retra::RequestKey CtlCommand::key() const {
  return Retra::RequestKey(verb == Verb::add ? request.method : method, Orb::String(url));
}

CommandLine parseCommandLine(const std::vector<std::string>& args) {
  CLI::App app{kDescription, "retra-ctl"};
  app.set_version_flag("--version", "retra-ctl 1.0.0");
  app.footer("Exit status:\n" + RetraTool::exitCodeTable("retra-ctl"));
  app.get_formatter()->column_width(34);
  app.require_subcommand(1);
  app.fallthrough();  // --socket after the command's name too

  CommandLine line;
  CtlCommand& command = line.command;
  app.add_option("--socket", command.socketPath,
                 "the service's socket (default: $RETRA_SOCKET, else the per-user instance's)")
      ->type_name("PATH");

  using Verb = CtlCommand::Verb;
  std::string method;
  uint32_t count = 0;
  auto* add = app.add_subcommand("add", "add a request (or change the one of its method and URL)");
  add->add_option("url", command.url, "URL to fetch (http or https)")->required();
  const auto requestOptions = std::make_unique<RetraTool::RequestOptionReader>(*add);
  auto* del = app.add_subcommand("del", "withdraw a request");
  auto* list = app.add_subcommand("list",
                                  "one line per request: method, URI, state, status, "
                                  "last error, last update");
  auto* show = app.add_subcommand("show", "the whole response of a request");
  auto* watch = app.add_subcommand(
      "watch",
      "a line per finished fetch (of every request, or of URL's), or with --json a "
      "JSON object per change");
  auto* reset = app.add_subcommand("reset", "fetch a request again now");
  auto* ping = app.add_subcommand("ping", "the service's version and the uid it sees");
  for (CLI::App* keyed : {del, show, reset, watch}) {
    keyed->add_option("url", command.url, "the request's URL")->required(keyed != watch);
    keyed->add_option("-X,--request", method, "the request's method (GET)")->type_name("METHOD");
  }
  for (CLI::App* printing : {list, show, watch}) {
    printing->add_flag("--json", command.json, "JSON output, one object per line");
  }
  CLI::Option* countOption = watch->add_option("--count", count, "stop after N finished fetches")
                                 ->type_name("N")
                                 ->check(CLI::Range(1u, std::numeric_limits<uint32_t>::max()));

  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
    const std::pair<CLI::App*, Verb> verbs[] = {
        {add, Verb::add},     {del, Verb::del},     {list, Verb::list}, {show, Verb::show},
        {watch, Verb::watch}, {reset, Verb::reset}, {ping, Verb::ping}};
    for (const auto& [subcommand, verb] : verbs) {
      if (subcommand->parsed()) command.verb = verb;
    }
    if (command.verb == Verb::add) {
      command.request = requestOptions->options();
      if (command.request.outputFile == "-") {
        throw RetraTool::UsageError{
            "-o/--output: the service writes files, not this terminal; name a file"};
      }
      command.request.outputFile = absolutePath(command.request.outputFile);
    }
    if (!method.empty()) command.method = RetraTool::methodNamed(method);
    if (countOption->count() > 0) command.count = count;
  } catch (const CLI::CallForHelp&) {
    line.outcome = CommandLine::Outcome::exit;
    line.message = app.help();
  } catch (const CLI::CallForVersion& e) {
    line.outcome = CommandLine::Outcome::exit;
    line.message = std::string(e.what()) + "\n";
  } catch (const CLI::ParseError& e) {
    line.outcome = CommandLine::Outcome::usageError;
    line.message = e.what();
  } catch (const RetraTool::UsageError& e) {
    line.outcome = CommandLine::Outcome::usageError;
    line.message = e.message;
  }
  return line;
}

}  // namespace RetraCtl
