#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>

#include "Dnsr/DnsrSm.h"
#include "Dnsr/ResolutionRecordDir.h"
#include "Dnsr/ResolutionRequestDir.h"
#include "Orb/Ptr.h"
#include "Orb/Seconds.h"

namespace DnsrTest {

// A fixture with the service's two directories and helpers to build the service, to drive the
// activity loop and to read a record. Every test ends by dropping the service and running the
// loop until the framework holds no libuv handle any more.
class ResolverTest : public ::testing::Test {
 protected:
  void TearDown() override;
  // Builds the service asking `servers` ("127.0.0.1:port"), failing fast (0.3 s, one try) and
  // refreshing no more often than every 0.1 s.
  void serviceIs(const std::string& servers);
  // Runs the loop until `done` holds, at most `timeout` seconds; returns `done()`.
  bool runUntil(const std::function<bool()>& done, Orb::Seconds timeout = 10.0);
  // The record of `host` as text: "valid errNone 192.0.2.1 2001:db8::1" (the addresses sorted
  // as text, so IPv4 first), "invalid errTimeout", or "none" without a record.
  [[nodiscard]] std::string state(std::string_view host) const;

  Orb::Ptr<Dnsr::ResolutionRequestDir> requests_ =
      Orb::allocate<Dnsr::ResolutionRequestDir>("dnsrRequest");
  Orb::Ptr<Dnsr::ResolutionRecordDir> records_ =
      Orb::allocate<Dnsr::ResolutionRecordDir>("dnsrRecord");
  Orb::Ptr<Dnsr::DnsrSm> service_;
};

}  // namespace DnsrTest
