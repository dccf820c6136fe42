#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace DnsrTest {

// A dnsmasq of the test's own on a free loopback UDP port, answering from a hosts file in a
// temporary directory, for as long as the object lives. Names under ".test" are local: a name
// the file lacks gets NXDOMAIN; names elsewhere get REFUSED (it has no upstream servers).
//
//   DnsrTest::Dnsmasq dns("192.0.2.1 a.test\n2001:db8::1 a.test\n", /*ttl=*/1);
//   config.servers = Dnsr::NameServer::listOf(dns.server());
//   dns.hostsIs("192.0.2.2 a.test\n");    // rewrites the file and makes dnsmasq reread it
class Dnsmasq {
 public:
  // Starts dnsmasq with `hosts` (hosts-file lines) and answers carrying `ttl` seconds, and
  // waits until it answers. A dnsmasq that will not start fails the test (a gtest failure) and
  // leaves `isRunning()` false.
  explicit Dnsmasq(const std::string& hosts, unsigned ttl = 0);
  ~Dnsmasq();
  Dnsmasq(const Dnsmasq&) = delete;
  Dnsmasq& operator=(const Dnsmasq&) = delete;

  [[nodiscard]] bool isRunning() const { return process_ && process_->isRunning(); }
  [[nodiscard]] uint16_t port() const noexcept { return port_; }
  // "127.0.0.1:port", the form of DNSR_SERVERS.
  [[nodiscard]] std::string server() const;
  // A hosts-file line giving `address` the names h0.test ... h<count-1>.test.
  [[nodiscard]] static std::string namesOn(const std::string& address, int count);

  // Replaces the hosts file and signals dnsmasq to read it again (SIGHUP), then waits until its
  // log says it has.
  void hostsIs(const std::string& hosts);
  // Stops dnsmasq (SIGTERM) and waits for it.
  void stop();
  // Starts a stopped dnsmasq again on its port; false (and a test failure) when it fails to.
  bool restarted();
  // What dnsmasq has written so far (for failure messages).
  [[nodiscard]] std::string log() const;

 private:
  bool started(uint16_t port);

  RetraTest::TempDir dir_{"dnsr"};
  unsigned ttl_;
  std::unique_ptr<RetraTest::ChildProcess> process_;
  uint16_t port_ = 0;
};

// A UDP socket on a free loopback port that takes queries and never answers them.
class SilentServer {
 public:
  SilentServer();
  ~SilentServer();
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;

  [[nodiscard]] uint16_t port() const noexcept { return port_; }
  [[nodiscard]] std::string server() const;
  // Reads, without waiting, the datagrams that have arrived; returns how many have arrived in
  // all.
  size_t queriesReceived();

 private:
  int socket_ = -1;
  uint16_t port_ = 0;
  size_t received_ = 0;
};

// A free UDP port on 127.0.0.1 (free when asked; the caller binds it soon after).
[[nodiscard]] uint16_t freeLoopbackPort();

}  // namespace DnsrTest
