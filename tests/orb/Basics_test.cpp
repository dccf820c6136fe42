// The framework's small pieces: reference counts, strings, entities, exceptions and tracing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>

#include "Orb/Entity.h"
#include "Orb/Exception.h"
#include "Orb/Ptr.h"
#include "Orb/String.h"
#include "Orb/Trace.h"
#include "orb/support/OrbTest.h"

namespace {

int destroyed = 0;

class Counted : public Orb::PtrInterface {
 protected:
  ~Counted() override { ++destroyed; }
};
class Derived : public Counted {};

TEST(PtrTest, CountsThroughCopiesCastsAndMovesAndDestroysWithTheLast) {
  Orb::Ptr<Derived> d = Orb::allocate<Derived>();
  {
    Orb::Ptr<Counted> base = d;
    Orb::Ptr<const Counted> view = base;
    EXPECT_EQ(Orb::ptr_cast<Derived>(base).ptr(), d.ptr());
    EXPECT_EQ(Orb::const_ptr_cast<Counted>(view).ptr(), base.ptr());
    Orb::Ptr<Counted> moved = std::move(base);
    moved = *&moved;  // self-assignment keeps the object
    EXPECT_TRUE(!base && d->references() == 3u);
  }
  EXPECT_EQ(destroyed, 0);
  d = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(PtrTest, ThreadSafeSwitchMakesCountsOfObjectsAndStringsAtomic) {
  Orb::threadSafePointersIs(true);
  Orb::Ptr<Counted> shared = Orb::allocate<Counted>();
  {
    const Orb::String text(std::string(1 << 22, 's'));
    auto copyMany = [&] {
      for (int i = 0; i < 1000000; ++i) {
        Orb::Ptr<Counted> copy = shared;
        Orb::String textCopy = text;
      }
    };
    std::thread a(copyMany), b(copyMany), c(copyMany);
    copyMany();
    a.join(), b.join(), c.join();
  }
  Orb::threadSafePointersIs(false);
  EXPECT_EQ(shared->references(), 1u);
}

TEST(StringTest, HoldsAnyBytesInOneSharedBufferComparesAndHashes) {
  const char bytes[] = {'a', '\0', 'b'};
  Orb::String binary(bytes, 3), copy = binary;
  EXPECT_EQ(binary.charPtr()[3], '\0');
  EXPECT_EQ(copy.charPtr(), binary.charPtr());
  Orb::String a("abc"), b("abd");
  EXPECT_TRUE(a < b && Orb::String("ab") < a && !(b < a) && !(a == "ab"));
  EXPECT_EQ(a + b, "abcabd");
  EXPECT_EQ(Orb::String("hello").hash(), Orb::String(std::string("hello")).hash());
}

class Dir : public Orb::Entity {
 public:
  using Orb::Entity::Entity;
  const Orb::TypeNode* typeNode() const override { return &type; }
  static inline const Orb::TypeNode type{"Test::Dir", Orb::TypeNode::Kind::entity, {{258, "left"}}};
};

TEST(EntityTest, ParentAndChildLinksNeverDangle) {
  auto root = Orb::allocate<Dir>("root"), left = Orb::allocate<Dir>("left");
  left->parentIs(root);
  left->parentAttrIdIs(258);
  EXPECT_EQ(root->entity("left"), left);
  left->parentIs(nullptr);
  EXPECT_EQ(root->entity("left"), nullptr);
  EXPECT_EQ(left->parentAttrId(), 0u);
  left->parentIs(root);
  root = nullptr;  // the parent goes first
  EXPECT_EQ(left->fullName(), "left");
  root = Orb::allocate<Dir>("root");
  left->parentIs(root);
  left = nullptr;  // the child goes first
  EXPECT_TRUE(root->entities().empty());
}

using ExceptionTest = OrbTest::LoopTest;
using TraceTest = OrbTest::LoopTest;

TEST_F(ExceptionTest, ExpectedKindsPassQuietlyAndOthersAreTracedAsFaults) {
  traceFaults();
  {
    Orb::Expect outer, inner;  // inner inherits what outer scopes expect
    outer.add(Orb::ExceptionId::internal);
    inner.add(Orb::ExceptionId::range);
    EXPECT_THROW(Orb::throwRangeException("null ValidPtr"), Orb::RangeException);
    EXPECT_THROW(Orb::throwInternalException("broken"), Orb::InternalException);
  }
  EXPECT_EQ(traced.str(), "");
  EXPECT_THROW(Orb::throwInternalException("surprise"), Orb::InternalException);
  EXPECT_CONTAINS(traced.str(), "unexpected internal exception: surprise");
}

TEST_F(TraceTest, ParsesFacilitiesLevelsAndWildcardsAndNamesMalformedItems) {
  const std::tuple<const char*, const char*, uint32_t> cases[] = {
      {"Retra/0-9,Dnsr/1-3", "Dnsr", 0xe},
      {"Retra/0-9", "Orb", 0},
      {"*/2", "Any", 0x6},  // a single level N means 1 to N
      {"Retra/3", "Retra", 0xe},
      {"Retra", "Retra", ~0u},
      {"Retra/4,Retra/9-9", "Retra", 0x21e},
      {"Retra/x,Retra/9-40,Retra/5-2,/3,Retra/,Retra/2", "Retra", 0x6}};
  for (const auto& [configuration, facility, levels] : cases) {
    EXPECT_EQ(Orb::TraceHandle::levelsFor(configuration, facility), levels) << configuration;
  }
  std::ostringstream out;
  Orb::TraceHandle::outputIs(&out);
  Orb::TraceHandle::configurationIs("Retra/2,Retra/x,,Dnsr/5-2");
  Orb::TraceHandle::configurationIs("");
  Orb::TraceHandle::outputIs(nullptr);
  const std::string text = out.str();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
  EXPECT_CONTAINS(text, "'Retra/x'");
  EXPECT_CONTAINS(text, "'Dnsr/5-2'");
}

// Composes a level-2 line of `text` on `handle` if that level is enabled; true if it was.
bool trace(Orb::TraceHandle& handle, const std::string& text) {
  char buffer[8];
  auto t = Orb::TraceHelper::createIfEnabled(handle, 2, buffer);
  if (t) {
    t->stream() << text;  // may spill past the caller's buffer
    t->trace("Retra", 77, "handleRequest");
  }
  return bool(t);
}

TEST_F(TraceTest, WritesEnabledLevelsAsOneLineToTheOutputOrTheFileNamedInTheEnvironment) {
  Orb::TraceHandle::outputIs(&traced);
  Orb::TraceHandle handle("TestFacility", false);
  const std::string text(1000, 'x');
  EXPECT_FALSE(trace(handle, text));
  Orb::TraceHandle::configurationIs("TestFacility/1-2");
  EXPECT_TRUE(trace(handle, text));
  const std::string line = traced.str(), tail = " TestFacility 2 Retra:77 handleRequest: " + text;
  EXPECT_EQ(line.substr(line.size() - tail.size() - 1), tail + "\n");
  EXPECT_EQ(line.find('\n'), line.size() - 1);

  const std::string path = testing::TempDir() + "orb_trace_" + std::to_string(::getpid());
  ::setenv("ORB_TRACE_FILE", path.c_str(), 1);
  Orb::TraceHandle::outputIs(nullptr);
  trace(handle, "to the file");
  Orb::TraceHandle::configurationIs("");
  ::unsetenv("ORB_TRACE_FILE");
  EXPECT_CONTAINS((std::stringstream() << std::ifstream(path).rdbuf()).str(), "to the file");
  std::remove(path.c_str());
}

}  // namespace
