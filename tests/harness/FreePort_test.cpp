#include "support/FreePort.h"

#include <gtest/gtest.h>

#include "support/LoopbackHttpServer.h"

namespace {

using RetraTest::FreePort;

TEST(FreePortTest, FreePortsRefuseAndListenersAccept) {
  uint16_t port = FreePort::onIp4AndIp6();
  EXPECT_NE(port, 0);
  EXPECT_FALSE(FreePort::accepts(port, false));
  EXPECT_FALSE(FreePort::accepts(port, true));
  EXPECT_FALSE(FreePort::awaitListener(port, false, std::chrono::milliseconds(30)));
  EXPECT_NE(FreePort::onLoopback(true), 0);

  for (bool ipv6 : {false, true}) {
    RetraTest::LoopbackHttpServer server(ipv6);
    EXPECT_TRUE(FreePort::accepts(server.port(), ipv6));
    EXPECT_TRUE(FreePort::awaitListener(server.port(), ipv6, std::chrono::milliseconds(30)));
    EXPECT_FALSE(FreePort::accepts(server.port(), !ipv6));
  }
}

}  // namespace
