#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Dnsr/DnsrConfig.h"
#include "Dnsr/DnsrSm.h"
#include "Dnsr/ResolutionRecordDir.h"
#include "Dnsr/ResolutionRequestDir.h"
#include "Orb/Ptr.h"
#include "Orb/Seconds.h"

namespace DnsrTest {

// The record's addresses as sorted text, IPv4 first: {"192.0.2.1", "2001:db8::1"}.
[[nodiscard]] std::vector<std::string> addressesOf(const Dnsr::ResolutionRecord& record);

// A fixture with the two directories and helpers to build the service over them and to drive
// the activity loop. Every test ends by dropping the service and running the loop until the
// framework holds no libuv handle any more.
class ResolverTest : public ::testing::Test {
 protected:
  ResolverTest();
  void TearDown() override;

  // A configuration asking `servers` ("127.0.0.1:port,..."), failing fast (0.3 s, one try) and
  // refreshing no more often than every 0.1 s.
  [[nodiscard]] static Dnsr::DnsrConfig quickConfig(const std::string& servers);
  // Builds the service over the fixture's directories.
  void serviceIs(const Dnsr::DnsrConfig& config);

  // Runs the loop until `done` holds, at most `timeout` seconds; returns `done()`.
  bool runUntil(const std::function<bool()>& done, Orb::Seconds timeout = 10.0);
  // Runs the loop for `seconds`.
  void runFor(Orb::Seconds seconds);

  [[nodiscard]] Orb::Ptr<const Dnsr::ResolutionRecord> record(const char* host) const;
  // Whether the record of `host` exists and is valid, or has the error `error`.
  [[nodiscard]] bool isValid(const char* host) const;
  [[nodiscard]] bool hasError(const char* host, unsigned error) const;

  // The addresses of the record of `host` (see `addressesOf`); none without a record.
  [[nodiscard]] std::vector<std::string> addresses(const char* host) const;

  Orb::Ptr<Dnsr::ResolutionRequestDir> requests_;
  Orb::Ptr<Dnsr::ResolutionRecordDir> records_;
  Orb::Ptr<Dnsr::DnsrSm> service_;
};

}  // namespace DnsrTest
