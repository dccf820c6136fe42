#include "toolkit/RequestOptions.h"

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

#include <CLI/CLI.hpp>

namespace RetraTool {
namespace {

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

}  // namespace

std::string quoted(const std::string& text) {
  return "'" + text + "'";
}

Retra::Method methodNamed(const std::string& text) {
  std::string upper = text;
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  std::string names;
  for (unsigned m = Retra::OPTIONS; m <= Retra::PATCH; ++m) {
    if (Retra::stringValue(Retra::MethodInstance(m)) == upper.c_str()) {
      return Retra::MethodInstance(m);
    }
    names += (names.empty() ? "" : ", ") + Retra::stringValue(Retra::MethodInstance(m)).str();
  }
  throw UsageError{"-X/--request: unknown method " + quoted(text) + " (one of " + names + ")"};
}

RequestOptionReader::RequestOptionReader(CLI::App& app) {
  app.add_option("-X,--request", method_,
                 "request method: GET (default), POST with -d, HEAD, "
                 "PUT, DELETE, PATCH, OPTIONS, TRACE, CONNECT")
      ->type_name("METHOD");
  app.add_option("-H,--header", headers_, "extra request header (repeatable)")
      ->type_name("'Name: value'")
      ->type_size(1)
      ->allow_extra_args(false);
  app.add_option("-d,--data", data_, "request body TEXT, or @FILE (@- for standard input)")
      ->type_name("TEXT|@FILE")
      ->type_size(1)
      ->allow_extra_args(false);
  CLI::Option* user = app.add_option("-u,--user", user_, "credentials for --basic or --digest")
                          ->type_name("USER:PASSWORD");
  CLI::Option* basic =
      app.add_flag("--basic", basic_, "send -u with basic authentication (default)");
  CLI::Option* digest = app.add_flag("--digest", digest_, "send -u with digest authentication");
  basic->excludes(digest);
  digest->needs(user);
  app.add_flag("-k,--insecure", direct_.insecure, "do not verify the server's certificate");
  app.add_option("--pinnedpubkey", direct_.pinnedPublicKey,
                 "the server's public key: sha256//BASE64[;sha256//...] or a key file")
      ->type_name("SPEC");
  app.add_option("-o,--output", direct_.outputFile, "write the body to FILE")->type_name("FILE");
  app.add_option("--connect-timeout", connectTimeout_, "seconds allowed for connecting (60)")
      ->type_name("SECONDS");
  app.add_option("-m,--max-time", maxTime_, "seconds allowed for a whole transfer (60)")
      ->type_name("SECONDS");
  app.add_option("--refresh", refresh_, "seconds from a finished fetch to the next (1800)")
      ->type_name("SECONDS");
}

RequestOptions RequestOptionReader::options() const {
  RequestOptions options = direct_;
  if (!data_.empty()) {
    std::string body;
    for (const std::string& piece : data_) body += (body.empty() ? "" : "&") + dataOf(piece);
    options.body = body;
  }
  if (!method_.empty()) {
    options.method = methodNamed(method_);
  } else if (options.body) {
    options.method = Retra::POST;
  }
  if (options.body && options.method != Retra::POST && options.method != Retra::PUT) {
    throw UsageError{"-d/--data: the library sends a body with POST and PUT only, not with " +
                     Retra::stringValue(options.method).str()};
  }
  for (const std::string& header : headers_) options.headers.push_back(headerOf(header));

  if (!user_.empty()) {
    const auto colon = user_.find(':');
    if (colon == std::string::npos) {
      throw UsageError{"-u/--user: " + quoted(user_) + " is not USER:PASSWORD"};
    }
    options.username = user_.substr(0, colon);
    options.password = user_.substr(colon + 1);
    options.authType = digest_ ? Retra::authDigest : Retra::authBasic;
  }
  constexpr uint64_t max16 = std::numeric_limits<uint16_t>::max();
  constexpr uint64_t max32 = std::numeric_limits<uint32_t>::max();
  if (!connectTimeout_.empty()) {
    options.connectTimeout =
        static_cast<uint16_t>(secondsOf("--connect-timeout", connectTimeout_, max16));
  }
  if (!maxTime_.empty()) {
    options.maxTime = static_cast<uint16_t>(secondsOf("-m/--max-time", maxTime_, max16));
  }
  if (!refresh_.empty()) {
    options.refresh = static_cast<uint32_t>(secondsOf("--refresh", refresh_, max32));
  }
  return options;
}

Retra::Request requestFor(const RequestOptions& options, const std::string& url,
                          const std::string& outputPath) {
  Retra::Request request(Retra::RequestKey(options.method, Orb::String(url)));
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
  request.outputPathIs(Orb::String(outputPath));
  return request;
}

}  // namespace RetraTool
