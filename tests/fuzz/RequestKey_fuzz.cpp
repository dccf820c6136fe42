// The request key's value form, found through the type registry. Any text the parser accepts
// gives a key whose printed form parses again to the same key and prints the same; any key at
// all (every method, any URI bytes) prints to a form that parses back to it, and its attribute
// log reads back to it too. A rejected text is the parse exception and nothing else.
//
// The first byte picks a method number for the key built directly; the rest is the text, and the
// URI of that key.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Orb/AttrLog.h"
#include "Orb/Attribute.h"
#include "Orb/Exception.h"
#include "Orb/TypeNode.h"
#include "Retra/model/Enumerations.h"
#include "Retra/model/RequestKey.h"
#include "fuzz/FuzzCheck.h"

namespace {

// The descriptor the library registered under the key's type name, which the value form names.
const Orb::TypeNode& keyType() {
  static const Orb::TypeNode* node = [] {
    const Orb::TypeNode* found = Orb::typeNode("Retra::RequestKey");
    FUZZ_CHECK(found != nullptr);
    FUZZ_CHECK(found == Retra::RequestKey::typeNode());
    FUZZ_CHECK(found->kind() == Orb::TypeNode::Kind::value);
    return found;
  }();
  return *node;
}

// The printed form names the registered type and each registered attribute in order.
void checkForm(const Retra::RequestKey& key, std::string_view printed) {
  const std::string head = "Value('" + std::string(keyType().name()) + "', ** {";
  FUZZ_CHECK(printed.starts_with(head));
  size_t at = head.size();
  for (const Orb::AttributeInfo& a : keyType().attributes()) {
    if (a.name == "hash") continue;  // derived, never printed
    const std::string label = "'" + std::string(a.name) + "': ";
    FUZZ_CHECK(printed.find(label, at) != std::string_view::npos);
    at = printed.find(label, at) + label.size();
  }
  FUZZ_CHECK(printed.ends_with("})"));
  FUZZ_CHECK(printed.find(Retra::valueToStrep(key.method()).view()) != std::string_view::npos);
}

void checkRoundTrips(const Retra::RequestKey& key) {
  const Orb::String printed = Retra::valueToStrep(key);
  checkForm(key, printed.view());
  const auto again = Orb::valueFromStrep<Retra::RequestKey>(printed.view());
  FUZZ_CHECK(again == key);
  FUZZ_CHECK(again.hash() == key.hash());
  FUZZ_CHECK(Retra::valueToStrep(again) == printed);

  Orb::AttrLogOut out;
  Retra::writeAttr(out, key);
  Orb::AttrLogIn in(out.bytes());
  FUZZ_CHECK(Retra::RequestKey(in) == key);
  in.expectEnd();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // A copy of exactly the text, so that a read past its end is caught.
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  Orb::Expect expect;  // rejections are expected; any other exception is a fault
  expect.add(Orb::ExceptionId::parse);

  const auto& methods = Retra::descriptorOf(Retra::Method{}).enumerators();
  const auto method = Retra::Method(methods[data[0] % methods.size()].value);
  checkRoundTrips(Retra::RequestKey(method, Orb::String(text)));

  Retra::RequestKey parsed;
  try {
    parsed = Orb::valueFromStrep<Retra::RequestKey>(text);
  } catch (const Orb::ParseException&) {
    return 0;  // rejected, and only this way
  }
  checkRoundTrips(parsed);
  return 0;
}
