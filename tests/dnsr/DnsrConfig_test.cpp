#include "Dnsr/DnsrConfig.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "Orb/Exception.h"

namespace {

// Sets DNSR_SERVERS for the scope of one check.
class ServersVariable {
 public:
  explicit ServersVariable(const char* value) { ::setenv("DNSR_SERVERS", value, 1); }
  ~ServersVariable() { ::unsetenv("DNSR_SERVERS"); }
};

TEST(DnsrConfigTest, EnvironmentReplacesTheServersOnly) {
  ::unsetenv("DNSR_SERVERS");
  EXPECT_TRUE(Dnsr::DnsrConfig::fromEnvironment().servers.empty());
  {
    ServersVariable blank(" ");
    EXPECT_TRUE(Dnsr::DnsrConfig::fromEnvironment().servers.empty());
  }
  ServersVariable servers("127.0.0.1:5353,[::1]:5354");
  Dnsr::DnsrConfig config = Dnsr::DnsrConfig::fromEnvironment();
  ASSERT_EQ(config.servers.size(), 2u);
  EXPECT_EQ(config.servers[1].port(), 5354);
  EXPECT_EQ(config.refreshFloor, Dnsr::DnsrConfig::defaultRefreshFloor);
  EXPECT_EQ(config.queryTimeout, 0.0);
  EXPECT_EQ(config.queryTries, 0u);
}

TEST(DnsrConfigTest, MalformedServersVariableRaises) {
  ServersVariable servers("127.0.0.1:5353,dns.example");
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::range);
  EXPECT_THROW((void)Dnsr::DnsrConfig::fromEnvironment(), Orb::RangeException);
}

}  // namespace
