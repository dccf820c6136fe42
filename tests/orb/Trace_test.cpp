#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Orb/Trace.h"

namespace {

class TraceTest : public testing::Test {
 protected:
  void SetUp() override { Orb::TraceHandle::outputIs(&out_); }
  void TearDown() override {
    Orb::TraceHandle::configurationIs("");
    Orb::TraceHandle::outputIs(nullptr);
  }
  std::ostringstream out_;
};

int composed = 0;
const char* expensive() {
  ++composed;
  return "piece";
}

TEST_F(TraceTest, ParsesFacilitiesLevelsAndWildcards) {
  EXPECT_EQ(Orb::TraceHandle::levelsFor("RetraLib/0-9,Dnsr/1-3", "RetraLib"), 0x3ffu);
  EXPECT_EQ(Orb::TraceHandle::levelsFor("RetraLib/0-9,Dnsr/1-3", "Dnsr"), 0xeu);
  EXPECT_EQ(Orb::TraceHandle::levelsFor("RetraLib/0-9,Dnsr/1-3", "Orb"), 0u);
  EXPECT_EQ(Orb::TraceHandle::levelsFor("*/2", "Anything"), 0x4u);
  EXPECT_EQ(Orb::TraceHandle::levelsFor("RetraLib", "RetraLib"), ~0u);
  EXPECT_EQ(Orb::TraceHandle::levelsFor("RetraLib/*", "RetraLib"), ~0u);
  EXPECT_EQ(Orb::TraceHandle::levelsFor("RetraLib/4,RetraLib/9", "RetraLib"), 0x210u);
  EXPECT_EQ(Orb::TraceHandle::levelsFor("RetraLib/x,RetraLib/9-40", "RetraLib"), 0u);
  EXPECT_EQ(Orb::TraceHandle::levelsFor("", "RetraLib"), 0u);
}

TEST_F(TraceTest, ComposesOnlyEnabledLevelsAndWritesOneLine) {
  Orb::TraceHandle handle("TestFacility", false);
  EXPECT_EQ(handle.levels(), 0u);
  composed = 0;
  char buffer[64];
  if (auto t = Orb::TraceHelper::createIfEnabled(handle, 2, buffer)) {
    t->stream() << expensive();
    t->trace("Retra", 1, "f");
  }
  EXPECT_EQ(composed, 0);
  EXPECT_EQ(out_.str(), "");

  Orb::TraceHandle::configurationIs("TestFacility/1-2");
  EXPECT_TRUE(handle.isEnabled(2));
  EXPECT_FALSE(handle.isEnabled(3));
  if (auto t = Orb::TraceHelper::createIfEnabled(handle, 2, buffer)) {
    t->stream() << "[" << 42 << "] " << expensive();
    t->trace("Retra", 77, "handleRequest");
  }
  EXPECT_EQ(composed, 1);
  std::string line = out_.str();
  EXPECT_NE(line.find(" TestFacility 2 Retra:77 handleRequest: [42] piece\n"), std::string::npos)
      << line;
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(line[0])));  // starts with the time
}

TEST_F(TraceTest, LongMessagesSpillPastTheCallersBuffer) {
  Orb::TraceHandle handle("Long", false);
  handle.levelsIs(1u << 5);
  char buffer[8];
  std::string long_text(1000, 'x');
  if (auto t = Orb::TraceHelper::createIfEnabled(handle, 5, buffer)) {
    t->stream() << "abc" << long_text << 'y';
    t->trace("Retra", 1, "f");
  }
  EXPECT_NE(out_.str().find("abc" + long_text + "y\n"), std::string::npos);
}

}  // namespace
