#include "Dnsr/NameServer.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "Dnsr/DnsrConfig.h"
#include "Orb/Exception.h"

namespace {

TEST(NameServerTest,
     ReadsAddressesWithAndWithoutPortsFromTextOrTheEnvironmentAndRejectsAnythingElse) {
  std::string text;
  for (const auto& server :
       Dnsr::NameServer::listOf(" 127.0.0.1:5353, [::1]:53535,192.0.2.53,2001:db8::53 ,")) {
    text += server.str().str() + (server.isIp6() ? "/6 " : "/4 ");
  }
  EXPECT_EQ(text, "127.0.0.1:5353/4 [::1]:53535/6 192.0.2.53:53/4 [2001:db8::53]:53/6 ");
  EXPECT_TRUE(Dnsr::NameServer::listOf("  ").empty());
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  for (const char* bad :
       {"localhost", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:53x", "[::1",
        "[::1]53", "[127.0.0.1]:53", "::1:53:x", "127.0.0.1,nameserver"}) {
    EXPECT_THROW((void)Dnsr::NameServer::listOf(bad), Orb::RangeException) << bad;
  }

  // The environment names the servers of the default configuration.
  ::setenv("DNSR_SERVERS", "127.0.0.1:5353,[::1]:5354", 1);
  EXPECT_EQ(Dnsr::DnsrConfig::fromEnvironment().servers.size(), 2u);
  ::setenv("DNSR_SERVERS", "127.0.0.1:5353,dns.example", 1);
  EXPECT_THROW((void)Dnsr::DnsrConfig::fromEnvironment(), Orb::RangeException);
  ::unsetenv("DNSR_SERVERS");
}

}  // namespace
