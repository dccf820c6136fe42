#include "Retra/model/RequestKey.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Orb/AttrLog.h"
#include "Orb/Attribute.h"
#include "Orb/Exception.h"

namespace {

using Retra::RequestKey;

TEST(RequestKeyTest, OnlyTheDefaultKeyIsNullAndKeysHashAndOrderByMethodThenUri) {
  EXPECT_TRUE(!RequestKey(Retra::OPTIONS, ""));
  EXPECT_FALSE(!RequestKey(Retra::GET, ""));
  EXPECT_FALSE(!RequestKey(Retra::OPTIONS, "http://127.0.0.1/"));
  Orb::String uri("http://127.0.0.1:8080/index.html");
  RequestKey get(Retra::GET, uri), put(Retra::PUT, uri);
  EXPECT_EQ(get.hash(), uri.hash() ^ Retra::GET);
  EXPECT_EQ(put.hash(), uri.hash() ^ Retra::PUT);
  EXPECT_FALSE(get == put);
  EXPECT_TRUE(get == RequestKey(Retra::GET, Orb::String(uri.str())));  // by content
  EXPECT_TRUE(RequestKey(Retra::GET, "http://z/") < RequestKey(Retra::HEAD, "http://a/"));
  EXPECT_TRUE(RequestKey(Retra::GET, "http://a/") < RequestKey(Retra::GET, "http://z/"));
}

TEST(RequestKeyTest, TextAndAttributeLogFormsRoundTrip) {
  const char* text =
      "Value('Retra::RequestKey', ** {'method': PUT, 'uri': 'http://127.0.0.1/a?b=c'})";
  RequestKey put(Retra::PUT, "http://127.0.0.1/a?b=c");
  EXPECT_EQ(Retra::valueToStrep(put), text);
  EXPECT_EQ(Orb::valueFromStrep<RequestKey>(text), put);
  for (const RequestKey& key :
       {RequestKey(), RequestKey(Retra::PATCH, Orb::String("it's\\\n\0\x01", 7))}) {
    EXPECT_EQ(Orb::valueFromStrep<RequestKey>(Retra::valueToStrep(key).view()), key);
    Orb::AttrLogOut log;
    Retra::writeAttr(log, key);
    Orb::AttrLogIn in(log.bytes());
    EXPECT_EQ(RequestKey(in), key);
    in.expectEnd();
  }
}

TEST(RequestKeyTest, MalformedFormsAreParseErrorsNamingTheAttribute) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::parse);
  const std::pair<const char*, const char*> cases[] = {
      {"Value('Retra::RequestKey', ** {'method': FETCH, 'uri': ''})", "'method'"},
      {"Value('Retra::RequestKey', ** {'method': GET, 'uri': x})", "'uri'"},
      {"Value('Retra::Key', ** {'method': GET, 'uri': ''})", "Retra::Key"},
      {"Value('Retra::RequestKey', ** {'method': GET, 'uri': ''}) ", "end of text"}};
  for (auto [text, fragment] : cases) {
    try {
      (void)Orb::valueFromStrep<RequestKey>(text);
      ADD_FAILURE() << "parsed: " << text;
    } catch (const Orb::ParseException& e) {
      EXPECT_NE(std::string(e.what()).find(fragment), std::string::npos) << e.what();
    }
  }
  Orb::AttrLogIn in(std::string_view("\x07\x02\x06\x09\x05\x00", 6));  // method number 9
  EXPECT_THROW(RequestKey{in}, Orb::ParseException);
}

}  // namespace
