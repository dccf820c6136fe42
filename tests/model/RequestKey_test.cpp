#include "Retra/model/RequestKey.h"

#include <gtest/gtest.h>

#include "Orb/Attribute.h"
#include "orb/support/OrbTest.h"

namespace {

using Retra::RequestKey;

TEST(RequestKeyTest, OnlyTheDefaultKeyIsNullAndKeysHashAndOrderByMethodThenUri) {
  EXPECT_TRUE(!RequestKey(Retra::OPTIONS, ""));
  EXPECT_FALSE(!RequestKey(Retra::GET, "") || !RequestKey(Retra::OPTIONS, "http://127.0.0.1/"));
  Orb::String uri("http://127.0.0.1:8080/index.html");
  RequestKey get(Retra::GET, uri), put(Retra::PUT, uri);
  EXPECT_TRUE(!(get == put) && get == RequestKey(Retra::GET, Orb::String(uri.str())));
  EXPECT_TRUE(RequestKey(Retra::GET, "http://z/") < RequestKey(Retra::HEAD, "http://a/"));
  EXPECT_TRUE(RequestKey(Retra::GET, "http://a/") < RequestKey(Retra::GET, "http://z/"));
}

TEST(RequestKeyTest, ValueFormRoundTripsAndMalformedFormsNameTheirFault) {
  const char* text =
      "Value('Retra::RequestKey', ** {'method': PUT, 'uri': 'http://127.0.0.1/a?b=c'})";
  const RequestKey put(Retra::PUT, "http://127.0.0.1/a?b=c");
  EXPECT_EQ(Retra::valueToStrep(put), text);
  EXPECT_EQ(Orb::valueFromStrep<RequestKey>(text), put);
  const std::pair<const char*, const char*> cases[] = {
      {"Value('Retra::RequestKey', ** {'method': FETCH, 'uri': ''})", "'method'"},
      {"Value('Retra::RequestKey', ** {'method': GET, 'uri': x})", "'uri'"},
      {"Value('Retra::Key', ** {'method': GET, 'uri': ''})", "Retra::Key"},
      {"Value('Retra::RequestKey', ** {'method': GET, 'uri': ''}) ", "end of text"}};
  for (auto [bad, fragment] : cases) {
    EXPECT_CONTAINS(OrbTest::parseFailure([&] { (void)Orb::valueFromStrep<RequestKey>(bad); }),
                    fragment);
  }
}

}  // namespace
