#include "Dnsr/DnsrConfig.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>

#include "Dnsr/internal/DnsrTrace.h"
#include "Orb/Exception.h"

namespace Dnsr {

namespace {

// The resolver limits named in option text ("timeout:N attempts:N ...", blank-separated); zero
// where the text does not name one.
struct Limits {
  unsigned timeout = 0;
  unsigned tries = 0;
};

// Reads the options of `text` into `limits`: later options win, as the C library reads them.
void optionsRead(std::string_view text, Limits& limits) {
  constexpr std::string_view blanks = " \t\r\n";
  while (!text.empty()) {
    const size_t start = text.find_first_not_of(blanks);
    if (start == std::string_view::npos) break;
    text.remove_prefix(start);
    const std::string_view option = text.substr(0, text.find_first_of(blanks));
    text.remove_prefix(option.size());
    auto valueOf = [&](std::string_view name, unsigned cap, unsigned& out) {
      if (!option.starts_with(name)) return;
      const std::string_view digits = option.substr(name.size());
      unsigned value = 0;
      auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
      if (error == std::errc() && end == digits.data() + digits.size() && value > 0) {
        out = std::min(value, cap);
      }
    };
    valueOf("timeout:", DnsrConfig::systemMaxTimeout, limits.timeout);
    valueOf("attempts:", DnsrConfig::systemMaxTries, limits.tries);
  }
}

}  // namespace

DnsrConfig DnsrConfig::fromEnvironment() {
  DnsrConfig config;
  const char* servers = std::getenv("DNSR_SERVERS");
  if (!servers) return config;
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  try {
    config.servers = NameServer::listOf(servers);
  } catch (const std::exception& e) {
    // A host must not fail to start over it: the system's servers are the better guess.
    DNSR_TRACE(1, "DNSR_SERVERS ignored, the system's name servers serve: " << e.what());
  }
  return config;
}

DnsrConfig DnsrConfig::withSystemLimits() const {
  std::ostringstream resolvConf;
  if (std::ifstream file("/etc/resolv.conf"); file) resolvConf << file.rdbuf();
  const char* resOptions = std::getenv("RES_OPTIONS");
  return withSystemLimits(resolvConf.str(), resOptions ? resOptions : "");
}

DnsrConfig DnsrConfig::withSystemLimits(std::string_view resolvConf,
                                        std::string_view resOptions) const {
  Limits limits;
  std::istringstream lines{std::string(resolvConf)};
  for (std::string line; std::getline(lines, line);) {
    std::string_view text = line;
    if (text.starts_with("options") && text.size() > 7 && (text[7] == ' ' || text[7] == '\t')) {
      optionsRead(text.substr(7), limits);
    }
  }
  optionsRead(resOptions, limits);
  DnsrConfig config = *this;
  if (!(config.queryTimeout > 0)) {
    config.queryTimeout = limits.timeout ? Orb::Seconds(limits.timeout) : systemTimeout;
  }
  if (config.queryTries == 0) config.queryTries = limits.tries ? limits.tries : systemTries;
  return config;
}

}  // namespace Dnsr
