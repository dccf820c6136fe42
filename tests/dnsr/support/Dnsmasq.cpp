#include "dnsr/support/Dnsmasq.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

namespace DnsrTest {

namespace {

using Clock = std::chrono::steady_clock;

// A UDP (or TCP) socket on 127.0.0.1, bound to `port` (0: any free one).
int loopbackSocket(uint16_t port, int type = SOCK_DGRAM) {
  int s = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
  if (s < 0) return -1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(s);
    return -1;
  }
  return s;
}

uint16_t portOf(int s) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
  return ntohs(address.sin_port);
}

size_t occurrences(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace

uint16_t freeLoopbackPort() {
  int s = loopbackSocket(0);
  uint16_t port = s < 0 ? 0 : portOf(s);
  if (s >= 0) ::close(s);
  // dnsmasq listens on TCP too: a port that some client connection holds is no use.
  int tcp = port == 0 ? -1 : loopbackSocket(port, SOCK_STREAM);
  if (tcp < 0) return 0;
  ::close(tcp);
  return port;
}

Dnsmasq::Dnsmasq(const std::string& hosts, unsigned ttl) : ttl_(ttl) {
  dir_.write("hosts", hosts);
  // The free port may be taken between the check and dnsmasq's bind (busy suites open thousands
  // of client connections): try until one holds.
  for (int attempt = 0; attempt < 20; ++attempt) {
    if (started(freeLoopbackPort())) return;
  }
  ADD_FAILURE() << "dnsmasq did not start; its log:\n" << log();
}

Dnsmasq::~Dnsmasq() {
  stop();
}

bool Dnsmasq::started(uint16_t port) {
  if (port == 0) return false;
  std::vector<std::string> args = {"/usr/sbin/dnsmasq",
                                   "--port=" + std::to_string(port),
                                   "--listen-address=127.0.0.1",
                                   "--bind-interfaces",
                                   "--no-daemon",
                                   "--no-resolv",
                                   "--no-hosts",
                                   "--conf-file=/dev/null",
                                   "--pid-file=",
                                   "--local=/test/",
                                   "--addn-hosts=" + dir_.path("hosts"),
                                   "--local-ttl=" + std::to_string(ttl_)};
  // As root it would switch to "nobody", who cannot read the test's private directory.
  if (::geteuid() == 0) args.push_back("--user=root");
  port_ = port;
  const std::string readLine = "read " + dir_.path("hosts");
  const size_t reads = occurrences(log(), readLine);
  try {
    process_ = std::make_unique<RetraTest::ChildProcess>(args, dir_.path("log"));
  } catch (const std::runtime_error& e) {
    ADD_FAILURE() << e.what();
    return false;
  }
  // It reads the hosts file once its port is bound, and exits if the port is taken.
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline && process_->isRunning()) {
    if (occurrences(log(), readLine) > reads) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  stop();
  return false;
}

std::string Dnsmasq::server() const {
  return "127.0.0.1:" + std::to_string(port_);
}

std::string Dnsmasq::namesOn(const std::string& address, int count) {
  std::string line = address;
  for (int i = 0; i < count; ++i) line += " h" + std::to_string(i) + ".test";
  return line + "\n";
}

void Dnsmasq::hostsIs(const std::string& hosts) {
  const std::string readLine = "read " + dir_.path("hosts");
  const size_t reads = occurrences(log(), readLine);
  dir_.write("hosts", hosts);
  if (!isRunning()) return;
  ::kill(process_->pid(), SIGHUP);
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (occurrences(log(), readLine) == reads && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_GT(occurrences(log(), readLine), reads) << "dnsmasq did not reread its hosts file";
}

bool Dnsmasq::restarted() {
  const bool up = started(port_);
  EXPECT_TRUE(up) << "dnsmasq did not start again; its log:\n" << log();
  return up;
}

void Dnsmasq::stop() {
  if (process_) process_->stop();
}

std::string Dnsmasq::log() const {
  return dir_.read("log");
}

SilentServer::SilentServer() : socket_(loopbackSocket(0)), port_(portOf(socket_)) {
  EXPECT_GE(socket_, 0) << "cannot open the silent server's socket";
}

SilentServer::~SilentServer() {
  if (socket_ >= 0) ::close(socket_);
}

std::string SilentServer::server() const {
  return "127.0.0.1:" + std::to_string(port_);
}

size_t SilentServer::queriesReceived() {
  char datagram[512];
  while (::recv(socket_, datagram, sizeof datagram, MSG_DONTWAIT) >= 0) ++received_;
  return received_;
}

}  // namespace DnsrTest
