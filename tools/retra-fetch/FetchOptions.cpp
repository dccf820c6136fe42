#include "retra-fetch/FetchOptions.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <limits>
#include <set>

#include <CLI/CLI.hpp>

#include "Dnsr/NameServer.h"
#include "Orb/Exception.h"
#include "toolkit/ExitCode.h"

namespace RetraFetch {
namespace {

using RetraTool::quoted;
using RetraTool::UsageError;

uint32_t positiveCountOf(const std::string& option, const std::string& text) {
  const bool digits = !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return std::isdigit(c) != 0;
  });
  const unsigned long long value = digits ? std::strtoull(text.c_str(), nullptr, 10) : 0;
  if (!digits || value == 0 || value > std::numeric_limits<uint32_t>::max()) {
    throw UsageError{option + ": " + quoted(text) + " is not a positive whole number"};
  }
  return static_cast<uint32_t>(value);
}

void checkNameServers(const std::string& text) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  try {
    if (Dnsr::NameServer::listOf(text).empty()) throw Orb::RangeException("empty");
  } catch (const Orb::Exception&) {
    throw UsageError{"--dns-servers: " + quoted(text) +
                     " is not a comma-separated list of address[:port]"};
  }
}

// Checks what the request options leave to retra-fetch.
FetchOptions optionsOf(const std::vector<std::string>& urls, const std::string& count,
                       FetchOptions options) {
  std::set<std::string> seen;
  for (const std::string& url : urls) {
    if (!seen.insert(url).second) {
      throw UsageError{"URL " + quoted(url) + " is given twice (a URL is fetched once per method)"};
    }
  }
  options.urls = urls;
  if (!options.outputFile.empty() && options.urls.size() > 1) {
    throw UsageError{"-o/--output names one file but " + std::to_string(options.urls.size()) +
                     " URLs were given; use --output-dir"};
  }
  if (!count.empty()) options.count = positiveCountOf("--count", count);
  if (options.dnsServers) checkNameServers(*options.dnsServers);
  return options;
}

constexpr const char* kDescription =
    "Fetches HTTP and HTTPS URLs with the Retra library: bodies on standard output in the order "
    "of the URLs, one summary line per fetch on standard error.";

}  // namespace

CommandLine parseCommandLine(const std::vector<std::string>& args) {
  CLI::App app{kDescription, "retra-fetch"};
  app.set_version_flag("--version", "retra-fetch 1.0.0");
  app.footer("Exit status:\n" + RetraTool::exitCodeTable("retra-fetch"));
  app.get_formatter()->column_width(34);

  std::vector<std::string> urls;
  std::string count;
  FetchOptions options;
  app.add_option("url", urls, "URL to fetch (http or https)")->required()->type_name("URL");
  RetraTool::RequestOptionReader requestOptions(app);
  app.add_option("--output-dir", options.outputDir,
                 "write each body to DIR, named after the URL's last path segment")
      ->type_name("DIR");
  app.add_flag("-v,--verbose", options.verbose,
               "show the library's traces and libcurl's verbose output on standard error");
  app.add_option("--dns-servers", options.dnsServers,
                 "resolver's servers, address[:port] comma-separated (DNSR_SERVERS)")
      ->type_name("LIST");
  app.add_flag("-i,--include", options.include, "response headers before the body");
  app.add_flag("-s,--silent", options.silent, "no summary lines and no progress line");
  auto* watch = app.add_flag("--watch", options.watch,
                             "keep fetching after --refresh and report every fetch");
  app.add_option("--count", count, "with --watch: stop after N fetches of each URL")
      ->type_name("N")
      ->needs(watch);
  app.add_flag("--stats", options.stats, "a table of phase times and counters per fetch");
  app.add_flag("--json", options.json,
               "one JSON object per fetch on standard output, nothing else");

  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  CommandLine line;
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
    static_cast<RetraTool::RequestOptions&>(options) = requestOptions.options();
    line.options = optionsOf(urls, count, options);
  } catch (const CLI::CallForHelp&) {
    line.outcome = CommandLine::Outcome::exit;
    line.message = app.help();
  } catch (const CLI::CallForVersion& e) {
    line.outcome = CommandLine::Outcome::exit;
    line.message = std::string(e.what()) + "\n";
  } catch (const CLI::ParseError& e) {
    line.outcome = CommandLine::Outcome::usageError;
    line.message = e.what();
  } catch (const UsageError& e) {
    line.outcome = CommandLine::Outcome::usageError;
    line.message = e.message;
  }
  return line;
}

std::vector<std::string> outputPathsFor(const FetchOptions& options) {
  std::vector<std::string> paths(options.urls.size());
  const std::string dir = options.outputDir.empty() || options.outputDir.back() == '/'
                              ? options.outputDir
                              : options.outputDir + "/";
  if (!options.outputFile.empty()) {
    if (options.outputFile != "-") {
      paths.at(0) = options.outputFile[0] == '/' ? options.outputFile : dir + options.outputFile;
    }
    return paths;
  }
  if (options.outputDir.empty()) return paths;

  std::set<std::string> taken;
  for (size_t i = 0; i < options.urls.size(); ++i) {
    std::string path = options.urls[i];
    const auto scheme = path.find("://");
    path = scheme == std::string::npos ? path : path.substr(scheme + 3);
    path = path.substr(0, path.find_first_of("?#"));
    const auto slash = path.rfind('/');
    std::string name = slash == std::string::npos ? std::string() : path.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") name = "index.html";
    const auto dot = name.rfind('.');
    const std::string stem = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
    const std::string extension = stem.size() == name.size() ? "" : name.substr(dot);
    for (int n = 2; !taken.insert(name).second; ++n)
      name = stem + "-" + std::to_string(n) + extension;
    paths[i] = dir + name;
  }
  return paths;
}

std::vector<Retra::Request> requestsFor(const FetchOptions& options) {
  const std::vector<std::string> paths = outputPathsFor(options);
  std::vector<Retra::Request> requests;
  for (size_t i = 0; i < options.urls.size(); ++i) {
    requests.push_back(RetraTool::requestFor(options, options.urls[i], paths[i]));
    requests.back().debugIs(options.verbose);
  }
  return requests;
}

}  // namespace RetraFetch
