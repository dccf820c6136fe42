#include "retra-fetch/FetchOptions.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <set>
#include <sstream>

#include <CLI/CLI.hpp>

#include "Dnsr/NameServer.h"
#include "Orb/Exception.h"
#include "retra-fetch/ExitCode.h"

namespace RetraFetch {
namespace {

// A usage error found after CLI11 has read the line; its text names the option.
struct UsageError {
  std::string message;
};

std::string quoted(const std::string& text) {
  return "'" + text + "'";
}

std::vector<Retra::Method> allMethods() {
  std::vector<Retra::Method> methods;
  for (unsigned m = Retra::OPTIONS; m <= Retra::PATCH; ++m)
    methods.push_back(Retra::MethodInstance(m));
  return methods;
}

Retra::Method methodNamed(const std::string& text) {
  std::string upper = text;
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  std::string names;
  for (Retra::Method m : allMethods()) {
    if (Retra::stringValue(m) == upper.c_str()) return m;
    names += (names.empty() ? "" : ", ") + Retra::stringValue(m).str();
  }
  throw UsageError{"-X/--request: unknown method " + quoted(text) + " (one of " + names + ")"};
}

std::pair<std::string, std::string> headerOf(const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) {
    throw UsageError{"-H/--header: " + quoted(text) + " has no colon (expected 'Name: value')"};
  }
  std::string name = text.substr(0, colon);
  if (name.empty() || name.find_first_of(" \t") != std::string::npos) {
    throw UsageError{"-H/--header: " + quoted(text) + " has no valid header name before its colon"};
  }
  const auto valueStart = text.find_first_not_of(" \t", colon + 1);
  return {name, valueStart == std::string::npos ? std::string() : text.substr(valueStart)};
}

// -d TEXT as it is; -d @FILE the file's bytes; -d @- standard input.
std::string dataOf(const std::string& text) {
  if (text.empty() || text[0] != '@') return text;
  const std::string path = text.substr(1);
  if (path == "-") {
    return std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw UsageError{"-d/--data: cannot read " + quoted(path) + ": " + std::strerror(errno)};
  }
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// Seconds as a whole number not above `limit`; fractions round up.
uint64_t secondsOf(const std::string& option, const std::string& text, uint64_t limit) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(begin, &end);
  if (text.empty() || end != begin + text.size() || errno != 0 || !std::isfinite(value) ||
      value < 0) {
    throw UsageError{option + ": " + quoted(text) + " is not a number of seconds"};
  }
  const double whole = std::ceil(value);
  if (whole > static_cast<double>(limit)) {
    throw UsageError{option + ": " + text + " is more than " + std::to_string(limit) + " seconds"};
  }
  return static_cast<uint64_t>(whole);
}

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

// The raw texts CLI11 collects; converted and checked by `optionsOf`.
struct RawOptions {
  std::vector<std::string> urls;
  std::string method;
  std::vector<std::string> headers;
  std::vector<std::string> data;
  std::string user;
  bool basic = false;
  bool digest = false;
  std::string connectTimeout;
  std::string maxTime;
  std::string refresh;
  std::string count;
};

FetchOptions optionsOf(const RawOptions& raw, FetchOptions options) {
  std::set<std::string> seen;
  for (const std::string& url : raw.urls) {
    if (!seen.insert(url).second) {
      throw UsageError{"URL " + quoted(url) + " is given twice (a URL is fetched once per method)"};
    }
  }
  options.urls = raw.urls;

  if (!raw.data.empty()) {
    std::string body;
    for (const std::string& piece : raw.data) body += (body.empty() ? "" : "&") + dataOf(piece);
    options.body = body;
  }
  if (!raw.method.empty()) {
    options.method = methodNamed(raw.method);
  } else if (options.body) {
    options.method = Retra::POST;
  }
  if (options.body && options.method != Retra::POST && options.method != Retra::PUT) {
    throw UsageError{"-d/--data: the library sends a body with POST and PUT only, not with " +
                     Retra::stringValue(options.method).str()};
  }
  for (const std::string& header : raw.headers) options.headers.push_back(headerOf(header));

  if (!raw.user.empty()) {
    const auto colon = raw.user.find(':');
    if (colon == std::string::npos) {
      throw UsageError{"-u/--user: " + quoted(raw.user) + " is not USER:PASSWORD"};
    }
    options.username = raw.user.substr(0, colon);
    options.password = raw.user.substr(colon + 1);
    options.authType = raw.digest ? Retra::authDigest : Retra::authBasic;
  }

  if (!options.outputFile.empty() && options.urls.size() > 1) {
    throw UsageError{"-o/--output names one file but " + std::to_string(options.urls.size()) +
                     " URLs were given; use --output-dir"};
  }
  constexpr uint64_t max16 = std::numeric_limits<uint16_t>::max();
  constexpr uint64_t max32 = std::numeric_limits<uint32_t>::max();
  if (!raw.connectTimeout.empty()) {
    options.connectTimeout =
        static_cast<uint16_t>(secondsOf("--connect-timeout", raw.connectTimeout, max16));
  }
  if (!raw.maxTime.empty()) {
    options.maxTime = static_cast<uint16_t>(secondsOf("-m/--max-time", raw.maxTime, max16));
  }
  if (!raw.refresh.empty()) {
    options.refresh = static_cast<uint32_t>(secondsOf("--refresh", raw.refresh, max32));
  }
  if (!raw.count.empty()) options.count = positiveCountOf("--count", raw.count);
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
  app.footer("Exit status:\n" + exitCodeTable());
  app.get_formatter()->column_width(34);

  RawOptions raw;
  FetchOptions options;
  app.add_option("url", raw.urls, "URL to fetch (http or https)")->required()->type_name("URL");
  app.add_option("-X,--request", raw.method,
                 "request method: GET (default), POST with -d, HEAD, "
                 "PUT, DELETE, PATCH, OPTIONS, TRACE, CONNECT")
      ->type_name("METHOD");
  app.add_option("-H,--header", raw.headers, "extra request header (repeatable)")
      ->type_name("'Name: value'")
      ->type_size(1)
      ->allow_extra_args(false);
  app.add_option("-d,--data", raw.data, "request body TEXT, or @FILE (@- for standard input)")
      ->type_name("TEXT|@FILE")
      ->type_size(1)
      ->allow_extra_args(false);
  auto* user = app.add_option("-u,--user", raw.user, "credentials for --basic or --digest")
                   ->type_name("USER:PASSWORD");
  auto* basic = app.add_flag("--basic", raw.basic, "send -u with basic authentication (default)");
  auto* digest = app.add_flag("--digest", raw.digest, "send -u with digest authentication");
  basic->excludes(digest);
  digest->needs(user);
  app.add_flag("-k,--insecure", options.insecure, "do not verify the server's certificate");
  app.add_option("--pinnedpubkey", options.pinnedPublicKey,
                 "the server's public key: sha256//BASE64[;sha256//...] or a key file")
      ->type_name("SPEC");
  app.add_option("-o,--output", options.outputFile, "write the body to FILE (one URL only)")
      ->type_name("FILE");
  app.add_option("--output-dir", options.outputDir,
                 "write each body to DIR, named after the URL's last path segment")
      ->type_name("DIR");
  app.add_option("--connect-timeout", raw.connectTimeout, "seconds allowed for connecting (60)")
      ->type_name("SECONDS");
  app.add_option("-m,--max-time", raw.maxTime, "seconds allowed for a whole transfer (60)")
      ->type_name("SECONDS");
  app.add_option("--refresh", raw.refresh, "seconds from a finished fetch to the next (1800)")
      ->type_name("SECONDS");
  app.add_flag("-v,--verbose", options.verbose,
               "show the library's traces and libcurl's verbose output on standard error");
  app.add_option("--dns-servers", options.dnsServers,
                 "resolver's servers, address[:port] comma-separated (DNSR_SERVERS)")
      ->type_name("LIST");
  app.add_flag("-i,--include", options.include, "response headers before the body");
  app.add_flag("-s,--silent", options.silent, "no summary lines and no progress line");
  auto* watch = app.add_flag("--watch", options.watch,
                             "keep fetching after --refresh and report every fetch");
  app.add_option("--count", raw.count, "with --watch: stop after N fetches of each URL")
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
    line.options = optionsOf(raw, options);
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
    Retra::Request request(Retra::RequestKey(options.method, Orb::String(options.urls[i])));
    uint16_t connect = options.connectTimeout.value_or(request.timeoutConnect());
    if (options.maxTime) {
      request.timeoutRequestIs(*options.maxTime);
      if (*options.maxTime > 0 && connect > *options.maxTime) connect = *options.maxTime;
      if (*options.maxTime == 0 && !options.connectTimeout) connect = 0;
    }
    request.timeoutConnectIs(connect);
    if (options.refresh) request.timeoutRefreshIs(*options.refresh);
    for (const auto& [name, value] : options.headers) {
      request.headerIs(Orb::String(name), Orb::String(value));
    }
    if (options.body) request.bodyIs(Orb::String(*options.body));
    request.authTypeIs(options.authType);
    request.usernameIs(Orb::String(options.username));
    request.passwordIs(Orb::String(options.password));
    request.sslVerifyPeerIs(!options.insecure);
    request.pinnedPublicKeyIs(Orb::String(options.pinnedPublicKey));
    request.outputPathIs(Orb::String(paths[i]));
    request.debugIs(options.verbose);
    requests.push_back(request);
  }
  return requests;
}

}  // namespace RetraFetch
