// The request key's value form. Any text the parser accepts gives a key whose printed form
// parses again to the same key and prints the same; any key at all (every method, any URI bytes)
// prints to a form that parses back to it, and its attribute log reads back to it too. A
// rejected text is the parse exception and nothing else.
//
// The first byte picks a method number for the key built directly; the rest is the text, and the
// URI of that key.

#include <cstddef>
#include <cstdint>
#include <string>

#include "Orb/AttrLog.h"
#include "Orb/Attribute.h"
#include "Retra/model/Enumerations.h"
#include "Retra/model/RequestKey.h"
#include "fuzz/FuzzCheck.h"

namespace {

void checkRoundTrips(const Retra::RequestKey& key) {
  const Orb::String printed = Retra::valueToStrep(key);
  const auto again = Orb::valueFromStrep<Retra::RequestKey>(printed.view());
  FUZZ_CHECK(again == key && again.hash() == key.hash());
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
  FuzzCheck::ExpectParse expect;
  const auto& methods = Retra::descriptorOf(Retra::Method{}).enumerators();
  checkRoundTrips(
      Retra::RequestKey(Retra::Method(methods[data[0] % methods.size()].value), Orb::String(text)));
  Retra::RequestKey parsed;
  if (!FuzzCheck::rejects([&] { parsed = Orb::valueFromStrep<Retra::RequestKey>(text); })) {
    checkRoundTrips(parsed);
  }
  return 0;
}
