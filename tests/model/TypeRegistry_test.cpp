#include <gtest/gtest.h>

#include <string_view>
#include <vector>

#include "Orb/TypeNode.h"
#include "Retra/TypeRegistry.h"
#include "Retra/model/Enumerations.h"
#include "Retra/model/Response.h"

namespace {

TEST(TypeRegistryTest, ModelTypesAreRegisteredAtLoadInOrder) {
  const std::vector<std::string_view> expected = {"Retra::Method",
                                                  "Retra::Error",
                                                  "Retra::RequestState",
                                                  "Retra::Scheme",
                                                  "Retra::HttpAuthenticationType",
                                                  "Retra::RequestKey",
                                                  "Retra::Request",
                                                  "Retra::RequestDir",
                                                  "Retra::Response",
                                                  "Retra::ResponseDir",
                                                  "Retra::RequestCounter",
                                                  "Retra::RequestTimer"};
  std::vector<std::string_view> registered;
  for (std::string_view name : Orb::typeNames()) {
    if (name.starts_with("Retra::")) registered.push_back(name);
  }
  EXPECT_EQ(registered, expected);
  EXPECT_EQ(Orb::typeNode("Retra::Method"), &Retra::descriptorOf(Retra::Method{}));
  EXPECT_EQ(Orb::typeNode("Retra::Response"), Retra::Response::staticTypeNode());

  const size_t before = Orb::typeNames().size();
  Retra::registerTypes();  // again: nothing changes
  EXPECT_EQ(Orb::typeNames().size(), before);
}

}  // namespace
