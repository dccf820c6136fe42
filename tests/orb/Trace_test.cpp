#include "Orb/Trace.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>

namespace {

TEST(TraceTest, ParsesFacilitiesLevelsAndWildcards) {
  const std::tuple<const char*, const char*, uint32_t> cases[] = {
      {"Retra/0-9,Dnsr/1-3", "Dnsr", 0xe},
      {"Retra/0-9", "Orb", 0},
      {"*/2", "Any", 0x4},
      {"Retra", "Retra", ~0u},
      {"Retra/4,Retra/9", "Retra", 0x210},
      {"Retra/x,Retra/9-40", "Retra", 0}};
  for (const auto& [configuration, facility, levels] : cases) {
    EXPECT_EQ(Orb::TraceHandle::levelsFor(configuration, facility), levels) << configuration;
  }
}

TEST(TraceTest, ComposesOnlyEnabledLevelsAndWritesOneLineOfAnyLength) {
  std::ostringstream out;
  Orb::TraceHandle::outputIs(&out);
  Orb::TraceHandle handle("TestFacility", false);
  int composed = 0;
  const std::string text(1000, 'x');
  char buffer[8];
  for (const char* configuration : {"", "TestFacility/1-2"}) {
    Orb::TraceHandle::configurationIs(configuration);
    if (auto t = Orb::TraceHelper::createIfEnabled(handle, 2, buffer)) {
      t->stream() << "[" << ++composed << "] " << text;  // spills past the caller's buffer
      t->trace("Retra", 77, "handleRequest");
    }
  }
  Orb::TraceHandle::configurationIs("");
  Orb::TraceHandle::outputIs(nullptr);
  EXPECT_EQ(composed, 1);
  const std::string line = out.str();
  const std::string tail = " TestFacility 2 Retra:77 handleRequest: [1] " + text + "\n";
  EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
  EXPECT_EQ(line.find('\n'), line.size() - 1);  // one line
}

}  // namespace
