#include "common/BenchOptions.h"

#include <fstream>
#include <iostream>
#include <stdexcept>

#include <CLI/CLI.hpp>

namespace RetraBench {
namespace {

bool isUrl(const std::string& text) {
  return text.rfind("http://", 0) == 0 || text.rfind("https://", 0) == 0;
}

std::vector<std::string> urlsFrom(const std::string& source) {
  if (isUrl(source)) return {source};
  std::ifstream file(source);
  if (!file) throw std::runtime_error("cannot read URL file '" + source + "'");
  std::vector<std::string> urls;
  std::string line;
  while (std::getline(file, line)) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    if (!isUrl(line)) throw std::runtime_error("'" + line + "' in " + source + " is no URL");
    urls.push_back(line);
  }
  if (urls.empty()) throw std::runtime_error("no URL in '" + source + "'");
  return urls;
}

}  // namespace

ParsedCommandLine parseCommandLine(const std::string& program, int argc, char** argv) {
  ParsedCommandLine parsed;
  BenchOptions& options = parsed.options;
  options.program = program;
  std::string source;
  std::string hosts;
  uint64_t expectSize = 0;

  CLI::App app{"Fetches COUNT requests at once and prints one JSON line of measurements.", program};
  app.add_option("source", source, "a URL, or a file with one URL per line")->required();
  app.add_option("count", options.count, "how many requests to write at once")
      ->required()
      ->check(CLI::PositiveNumber);
  app.add_option("--output-dir", options.outputDir, "write each body to a file in DIR");
  app.add_option("--hosts", hosts, "comma-separated host names to spread the requests over");
  app.add_flag("--keep", options.keep, "keep every response until the process exits");
  auto* expect = app.add_option("--expect-size", expectSize, "the size every body must have");
  app.add_option("--timeout", options.timeoutSeconds, "connect and transfer limit in seconds")
      ->check(CLI::Range(1u, 65535u));
  if (program == "curl-baseline") {
    app.add_option("--window", options.window,
                   "add at most N easy handles to the multi handle at a time (0: all)");
  }
  if (program == "retra-remote-bench") {
    app.add_option("--retrad", options.retrad, "the service program to start and fetch through")
        ->required();
  }
  try {
    app.parse(argc, argv);
    options.urls = urlsFrom(source);
  } catch (const CLI::ParseError& e) {
    parsed.outcome = ParsedCommandLine::Outcome::exit;
    parsed.exitStatus = app.exit(e) == 0 ? 0 : 2;
    return parsed;
  } catch (const std::exception& e) {
    std::cerr << program << ": " << e.what() << "\n";
    parsed.outcome = ParsedCommandLine::Outcome::exit;
    parsed.exitStatus = 2;
    return parsed;
  }
  if (*expect) options.expectSize = expectSize;
  for (size_t start = 0; !hosts.empty() && start <= hosts.size();) {
    const size_t comma = std::min(hosts.find(',', start), hosts.size());
    if (comma > start) options.hosts.push_back(hosts.substr(start, comma - start));
    start = comma + 1;
  }
  return parsed;
}

}  // namespace RetraBench
