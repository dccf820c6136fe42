#include "Dnsr/NameServer.h"

#include <charconv>
#include <string>

#include "Orb/Exception.h"

namespace Dnsr {

namespace {

[[noreturn]] void notAServer(std::string_view text) {
  Orb::throwRangeException(("not a name server address: \"" + std::string(text) + "\"").c_str());
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// A decimal port 1..65535; anything else is rejected with the whole entry in the message.
uint16_t portOf(std::string_view digits, std::string_view entry) {
  unsigned port = 0;
  auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  if (digits.empty() || error != std::errc() || end != digits.data() + digits.size() || port == 0 ||
      port > 65535) {
    notAServer(entry);
  }
  return static_cast<uint16_t>(port);
}

}  // namespace

NameServer NameServer::fromText(std::string_view text) {
  Ipkit::IpAddr ip;
  Ipkit::Ip6Addr ip6;
  if (text.starts_with('[')) {  // "[v6]" or "[v6]:port"
    size_t close = text.find(']');
    if (close == std::string_view::npos ||
        !Ipkit::Ip6Addr::parse(text.substr(1, close - 1), &ip6)) {
      notAServer(text);
    }
    std::string_view rest = text.substr(close + 1);
    if (rest.empty()) return NameServer(ip6);
    if (!rest.starts_with(':')) notAServer(text);
    return NameServer(ip6, portOf(rest.substr(1), text));
  }
  if (Ipkit::Ip6Addr::parse(text, &ip6)) return NameServer(ip6);  // bare v6, default port
  size_t colon = text.find(':');
  if (!Ipkit::IpAddr::parse(text.substr(0, colon), &ip)) notAServer(text);
  if (colon == std::string_view::npos) return NameServer(ip);
  return NameServer(ip, portOf(text.substr(colon + 1), text));
}

std::vector<NameServer> NameServer::listOf(std::string_view text) {
  std::vector<NameServer> servers;
  while (!text.empty()) {
    size_t comma = text.find(',');
    std::string_view entry = trimmed(text.substr(0, comma));
    if (!entry.empty()) servers.push_back(fromText(entry));
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
  }
  return servers;
}

Orb::String NameServer::str() const {
  std::string text = isIp6_ ? "[" + ip6_.str().str() + "]" : ip_.str().str();
  return Orb::String(text + ":" + std::to_string(port_));
}

}  // namespace Dnsr
