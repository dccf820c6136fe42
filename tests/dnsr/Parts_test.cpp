// The resolver's parts that need no name server: server lists, answers and the record directory.
#include <ares.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "Dnsr/DnsrConfig.h"
#include "Dnsr/NameServer.h"
#include "Dnsr/ResolutionRecordDir.h"
#include "Dnsr/internal/LookupAnswer.h"
#include "Orb/Exception.h"
#include "Orb/Trace.h"

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
  for (const char* bad : {"localhost", "127.0.0.1:0", "127.0.0.1:65536", "[::1", "127.0.0.1,dns"})
    EXPECT_THROW((void)Dnsr::NameServer::listOf(bad), Orb::RangeException) << bad;

  // The environment names the servers of the default configuration.
  ::setenv("DNSR_SERVERS", "127.0.0.1:5353,[::1]:5354", 1);
  EXPECT_EQ(Dnsr::DnsrConfig::fromEnvironment().servers.size(), 2u);
  // A malformed list must not stop the host: the system's servers serve, and the trace says why.
  std::ostringstream trace;
  Orb::TraceHandle::outputIs(&trace);
  Orb::TraceHandle::configurationIs("Dnsr/1");
  ::setenv("DNSR_SERVERS", "127.0.0.1:5353,dns.example", 1);
  EXPECT_TRUE(Dnsr::DnsrConfig::fromEnvironment().servers.empty());
  ::unsetenv("DNSR_SERVERS");
  Orb::TraceHandle::configurationIs("");
  Orb::TraceHandle::outputIs(nullptr);
  EXPECT_NE(trace.str().find("DNSR_SERVERS ignored"), std::string::npos) << trace.str();
  EXPECT_NE(trace.str().find("\"dns.example\""), std::string::npos) << trace.str();
}

TEST(DnsrConfigTest, UnsetTimeOutsComeFromResolvConfThenResOptionsElseTheCLibrarysDefaults) {
  const struct {
    const char* resolvConf;
    const char* resOptions;
    Orb::Seconds timeout;
    unsigned tries;
  } cases[] = {{"", "", 5.0, 2},
               {"nameserver 127.0.0.1\noptions ndots:2 timeout:3 attempts:4\n", "", 3.0, 4},
               {"options timeout:3\noptions attempts:4\n", "attempts:1", 3.0, 1}};
  for (const auto& c : cases) {
    const Dnsr::DnsrConfig config = Dnsr::DnsrConfig{}.withSystemLimits(c.resolvConf, c.resOptions);
    EXPECT_EQ(config.queryTimeout, c.timeout) << c.resolvConf << c.resOptions;
    EXPECT_EQ(config.queryTries, c.tries) << c.resolvConf << c.resOptions;
  }
}

TEST(LookupAnswerTest, HardFailuresOutrankMissingDataAndAnswersReplaceOnlyTheirFamily) {
  const Ipkit::IpAddr a1("192.0.2.1"), a2("192.0.2.2");
  const Ipkit::Ip6Addr b1("2001:db8::1");
  const int statuses[][3] = {{ARES_ENODATA, ARES_ENODATA, Dnsr::errNoData},
                             {ARES_ENODATA, ARES_ENOTFOUND, Dnsr::errNoSuchName},
                             {ARES_ENODATA, ARES_ETIMEOUT, Dnsr::errTimeout},
                             {ARES_EREFUSED, ARES_ETIMEOUT, Dnsr::errRefused},
                             {ARES_ECONNREFUSED, ARES_EBADRESP, Dnsr::errServerFailure}};
  for (const auto& [ip, ip6, error] : statuses) {
    EXPECT_EQ((Dnsr::internal::LookupAnswer{ip, ip6, {}, {}}).error(), unsigned(error));
  }
  EXPECT_EQ((Dnsr::internal::LookupAnswer{ARES_ETIMEOUT, ARES_SUCCESS, {}, {b1}}).error(),
            Dnsr::errNone);

  // Answers replace their family; a failure touches only the error: `lastError` while the
  // record is not valid, the refresh error once it is.
  auto record = Orb::allocate<Dnsr::ResolutionRecord>("a.test");
  Dnsr::internal::answerApplied(*record, {ARES_ETIMEOUT, ARES_ETIMEOUT, {}, {}}, 1.0);
  EXPECT_TRUE(!record->valid() && record->lastError() == Dnsr::errTimeout);
  Dnsr::internal::answerApplied(*record, {ARES_SUCCESS, ARES_SUCCESS, {a1}, {b1}}, 2.0);
  EXPECT_TRUE(record->valid() && record->lastError() == Dnsr::errNone);
  Dnsr::internal::answerApplied(*record, {ARES_SUCCESS, ARES_ETIMEOUT, {a2}, {}}, 3.0);
  EXPECT_TRUE(!record->ipAddress(a1) && record->ipAddress(a2) && record->ip6Address(b1));
  Dnsr::internal::answerApplied(*record, {ARES_SUCCESS, ARES_ENODATA, {a2}, {}}, 4.0);
  EXPECT_TRUE(record->ip6Address().empty());
  Dnsr::internal::answerApplied(*record, {ARES_ENOTFOUND, ARES_ENOTFOUND, {}, {}}, 5.0);
  EXPECT_TRUE(record->valid() && record->ipAddress(a2) && record->lastError() == Dnsr::errNone);
  EXPECT_EQ(record->lastRefreshError(), unsigned(Dnsr::errNoSuchName));
  EXPECT_EQ(record->lastRefreshErrorTime(), 5.0);
  Dnsr::internal::answerApplied(*record, {ARES_SUCCESS, ARES_ENODATA, {a2}, {}}, 6.0);
  EXPECT_EQ(record->lastRefreshError(), unsigned(Dnsr::errNone));
  EXPECT_EQ(record->lastRefreshErrorTime(), 5.0);  // when the last outage was
}

// Notes each record notification as "host+" when the record is present then, else "host-".
class Log : public Dnsr::ResolutionRecordDir::NotifieeConst {
 public:
  using Dnsr::ResolutionRecordDir::NotifieeConst::onRecord;
  void onRecord(const Orb::Name& name) override {
    events += name.string().str() + (notifier()->record(name) ? "+ " : "- ");
  }
  std::string events;
};

TEST(ResolutionRecordDirTest, OwnsItsRecordsAndAnnouncesRealChanges) {
  auto dir = Orb::allocate<Dnsr::ResolutionRecordDir>("dnsrRecord");
  auto log = Orb::allocate<Log>();
  log->notifierIs(dir);
  auto record = dir->recordIs("a.test");
  EXPECT_EQ(record->fullName(), "dnsrRecord/a.test");
  EXPECT_EQ(dir->recordIs("a.test"), record);  // found: no second record, no notification
  EXPECT_EQ(dir->recordDel("a.test"), record);
  EXPECT_EQ(dir->recordDel("a.test"), nullptr);
  EXPECT_EQ(log->events, "a.test+ a.test- ");
}

}  // namespace
