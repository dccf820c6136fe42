#include <gtest/gtest.h>

#include <string_view>
#include <vector>

#include "Orb/TypeNode.h"
#include "Retra/TypeRegistry.h"
#include "Retra/engine/RetraSm.h"
#include "Retra/engine/Root.h"
#include "Retra/model/Enumerations.h"
#include "Retra/model/Response.h"
#include "Retra/request/RequestSm.h"

namespace {

TEST(TypeRegistryTest, LibraryTypesAreRegisteredAtLoadInOrder) {
  const std::vector<std::string_view> expected = {
      "Retra::RetraSm",      "Retra::RequestTimer",
      "Retra::ResponseDir",  "Retra::HttpAuthenticationType",
      "Retra::RequestState", "Retra::Scheme",
      "Retra::Request",      "Retra::Error",
      "Retra::RequestKey",   "Retra::Root",
      "Retra::RequestDir",   "Retra::Response",
      "Retra::RequestSm",    "Retra::RequestCounter",
      "Retra::Method"};
  std::vector<std::string_view> registered;
  for (std::string_view name : Orb::typeNames()) {
    if (name.starts_with("Retra::")) registered.push_back(name);
  }
  EXPECT_EQ(registered, expected);
  EXPECT_EQ(Orb::typeNode("Retra::Method"), &Retra::descriptorOf(Retra::Method{}));
  EXPECT_EQ(Orb::typeNode("Retra::Response"), Retra::Response::staticTypeNode());
  EXPECT_EQ(Orb::typeNode("Retra::RetraSm"), Retra::RetraSm::staticTypeNode());
  EXPECT_EQ(Orb::typeNode("Retra::Root"), Retra::Root::staticTypeNode());
  EXPECT_EQ(Orb::typeNode("Retra::RequestSm"), Retra::RequestSm::staticTypeNode());

  const size_t before = Orb::typeNames().size();
  Retra::registerTypes();  // again: nothing changes
  EXPECT_EQ(Orb::typeNames().size(), before);
}

}  // namespace
