#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Orb/Ptr.h"
#include "Retra/model/RequestCounter.h"

namespace {

using Retra::RequestCounter;
using Log = std::vector<std::string>;

class Recorder : public RequestCounter::NotifieeConst {
 public:
  Log log;
  void onNumConnect() override { log.push_back("numConnect"); }
  void onNumRedirect() override { log.push_back("numRedirect"); }
  void onNumFinish() override { log.push_back("numFinish"); }
  void onSpeedDownload() override { log.push_back("speedDownload"); }
  void onSpeedUpload() override { log.push_back("speedUpload"); }
  void onBytesDownload() override { log.push_back("bytesDownload"); }
  void onBytesUpload() override { log.push_back("bytesUpload"); }
  void onBytesHeaderDownload() override { log.push_back("bytesHeaderDownload"); }
  void onBytesRequestUpload() override { log.push_back("bytesRequestUpload"); }
};

struct RequestCounterTest : testing::Test {
  Orb::Ptr<RequestCounter> counter = Orb::allocate<RequestCounter>();
  Orb::Ptr<Recorder> recorder = Orb::allocate<Recorder>();
  void SetUp() override { recorder->notifierIs(counter); }
};

TEST_F(RequestCounterTest, AddingZeroReturnsTheValueAndIsSilent) {
  counter->numRedirectIs(3);
  recorder->log.clear();
  EXPECT_EQ(counter->numRedirectInc(0), 3u);
  EXPECT_EQ(counter->bytesUploadInc(0), 0u);
  counter->speedUploadIs(0.0);
  EXPECT_TRUE(recorder->log.empty());
}

TEST_F(RequestCounterTest, TotalsSumAcrossTransfersWhileSpeedsHoldTheLast) {
  counter->bytesDownloadInc(100);
  counter->speedDownloadIs(1000.0);
  counter->numFinishInc(1);
  counter->bytesDownloadInc(50);
  counter->speedDownloadIs(500.0);
  counter->numFinishInc(1);
  EXPECT_EQ(counter->bytesDownload(), 150u);
  EXPECT_EQ(counter->speedDownload(), 500.0);
  EXPECT_EQ(counter->numFinish(), 2u);
  EXPECT_EQ(recorder->log, (Log{"bytesDownload", "speedDownload", "numFinish", "bytesDownload",
                                "speedDownload", "numFinish"}));
}

TEST_F(RequestCounterTest, AddersWrapWithoutError) {
  counter->bytesDownloadIs(UINT64_MAX);
  EXPECT_EQ(counter->bytesDownloadInc(2), 1u);
  counter->numConnectIs(UINT32_MAX);
  EXPECT_EQ(counter->numConnectInc(1), 0u);
  EXPECT_EQ(recorder->log, (Log{"bytesDownload", "bytesDownload", "numConnect", "numConnect"}));
}

TEST_F(RequestCounterTest, AttributesAreNumberedFrom258) {
  EXPECT_EQ(counter->name(), "counter");
  EXPECT_EQ(RequestCounter::Attr::numConnect, 258u);
  EXPECT_EQ(RequestCounter::Attr::bytesRequestUpload, 266u);
  EXPECT_EQ(counter->typeNode()->name(), "Retra::RequestCounter");
  EXPECT_EQ(counter->typeNode()->attributeName(261), "speedDownload");
}

}  // namespace
