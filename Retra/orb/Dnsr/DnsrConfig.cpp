#include "Dnsr/DnsrConfig.h"

#include <cstdlib>

namespace Dnsr {

DnsrConfig DnsrConfig::fromEnvironment() {
  DnsrConfig config;
  if (const char* servers = std::getenv("DNSR_SERVERS")) {
    config.servers = NameServer::listOf(servers);
  }
  return config;
}

}  // namespace Dnsr
