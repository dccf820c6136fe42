#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Orb/AttrLog.h"
#include "Orb/Attribute.h"
#include "Orb/Exception.h"
#include "Retra/model/RequestKey.h"

namespace {

using Retra::RequestKey;

// Parses `text` as a whole key and returns the parse exception's message ("" when it parsed).
std::string parseFailure(std::string_view text) {
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::parse);
  try {
    (void)Orb::valueFromStrep<RequestKey>(text);
  } catch (const Orb::ParseException& e) {
    return e.what();
  }
  return "";
}

TEST(RequestKeyTest, OnlyTheDefaultKeyIsNull) {
  EXPECT_TRUE(!RequestKey());
  EXPECT_TRUE(!RequestKey(Retra::OPTIONS, ""));
  EXPECT_FALSE(!RequestKey(Retra::GET, ""));
  EXPECT_FALSE(!RequestKey(Retra::OPTIONS, "http://127.0.0.1/"));
  EXPECT_EQ(RequestKey().method(), Retra::OPTIONS);
  EXPECT_TRUE(RequestKey().uri().empty());
}

TEST(RequestKeyTest, HashIsTheUriHashXorTheMethod) {
  Orb::String uri("http://127.0.0.1:8080/index.html");
  RequestKey get(Retra::GET, uri), put(Retra::PUT, uri);
  EXPECT_EQ(get.hash(), uri.hash() ^ 1u);
  EXPECT_EQ(get.hash() ^ put.hash(), uint32_t(Retra::GET ^ Retra::PUT));
  EXPECT_FALSE(get == put);
  EXPECT_TRUE(get == RequestKey(Retra::GET, Orb::String(uri.str())));  // by content
  EXPECT_EQ(RequestKey().hash(), Orb::String().hash());
}

TEST(RequestKeyTest, OrdersByMethodFirstThenByUri) {
  RequestKey getZ(Retra::GET, "http://z/"), headA(Retra::HEAD, "http://a/");
  EXPECT_TRUE(getZ < headA);
  EXPECT_FALSE(headA < getZ);
  RequestKey getA(Retra::GET, "http://a/");
  EXPECT_TRUE(getA < getZ);
  EXPECT_FALSE(getA < getA);
}

TEST(RequestKeyTest, TextFormRoundTrips) {
  RequestKey put(Retra::PUT, "http://127.0.0.1/a?b=c");
  const char* expected =
      "Value('Retra::RequestKey', ** {'method': PUT, 'uri': 'http://127.0.0.1/a?b=c'})";
  EXPECT_EQ(Retra::valueToStrep(put), expected);
  std::ostringstream out;
  out << put;
  EXPECT_EQ(out.str(), expected);
  EXPECT_EQ(Orb::valueFromStrep<RequestKey>(expected), put);

  // Quotes, backslashes and control bytes in the URI survive the quoted form.
  RequestKey odd(Retra::PATCH, Orb::String("it's\\\n\x01", 6));
  EXPECT_EQ(Orb::valueFromStrep<RequestKey>(Retra::valueToStrep(odd).view()), odd);
  EXPECT_EQ(Orb::valueFromStrep<RequestKey>(Retra::valueToStrep(RequestKey()).view()),
            RequestKey());
}

TEST(RequestKeyTest, MalformedTextIsAParseErrorNamingTheAttribute) {
  std::string bad = parseFailure("Value('Retra::RequestKey', ** {'method': FETCH, 'uri': ''})");
  EXPECT_NE(bad.find("'method'"), std::string::npos) << bad;

  std::string badUri = parseFailure("Value('Retra::RequestKey', ** {'method': GET, 'uri': x})");
  EXPECT_NE(badUri.find("'uri'"), std::string::npos) << badUri;

  EXPECT_NE(parseFailure("Value('Retra::Key', ** {'method': GET, 'uri': ''})"), "");
  EXPECT_NE(parseFailure("Value('Retra::RequestKey', ** {'method': GET, 'uri': ''}"), "");
  EXPECT_NE(parseFailure("Value('Retra::RequestKey', ** {'method': GET, 'uri': ''}) "), "");
  EXPECT_EQ(parseFailure("Value('Retra::RequestKey', ** {'method': GET, 'uri': ''})"), "");
}

TEST(RequestKeyTest, AttributeLogRoundTrips) {
  RequestKey key(Retra::DELETE, Orb::String("http://[::1]/\0x", 15));
  Orb::AttrLogOut out;
  Retra::writeAttr(out, key);
  Orb::AttrLogIn in(out.bytes());
  EXPECT_EQ(RequestKey(in), key);
  in.expectEnd();

  // A method number outside the table does not read back.
  Orb::AttrLogOut bad;
  bad.beginCompound(2);
  bad.writeEnum(9);
  bad.writeString("http://127.0.0.1/");
  bad.endCompound();
  Orb::AttrLogIn badIn(bad.bytes());
  Orb::Expect expect;
  expect.add(Orb::ExceptionId::parse);
  EXPECT_THROW(RequestKey{badIn}, Orb::ParseException);
}

TEST(RequestKeyTest, AttributesAreNumberedFromTwo) {
  EXPECT_EQ(RequestKey::Attr::method, 2u);
  EXPECT_EQ(RequestKey::Attr::uri, 3u);
  EXPECT_EQ(RequestKey::Attr::hash, 4u);
  const Orb::TypeNode* node = RequestKey::typeNode();
  EXPECT_EQ(node->name(), "Retra::RequestKey");
  EXPECT_EQ(node->kind(), Orb::TypeNode::Kind::value);
  EXPECT_EQ(node->attributeName(3), "uri");
  EXPECT_EQ(node->attributeId("hash"), 4u);
}

}  // namespace
