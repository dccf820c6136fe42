#include "Retra/engine/RequestUri.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

using Retra::RequestUri;

TEST(RequestUriTest, TakesSchemeHostAndPortApart) {
  auto uri = RequestUri::parsed("https://a.test:8443/path?q=1#f");
  ASSERT_TRUE(uri);
  EXPECT_EQ(uri->scheme, "https");
  EXPECT_EQ(uri->host, "a.test");
  EXPECT_EQ(uri->port, 8443);
  EXPECT_FALSE(uri->hostIsAddress);

  uri = RequestUri::parsed("http://192.0.2.1/");
  ASSERT_TRUE(uri);
  EXPECT_TRUE(uri->hostIsAddress);
  EXPECT_EQ(uri->host, "192.0.2.1");
  EXPECT_EQ(uri->port, 80);

  uri = RequestUri::parsed("https://[2001:db8::1]/");
  ASSERT_TRUE(uri);
  EXPECT_TRUE(uri->hostIsAddress);
  EXPECT_EQ(uri->host, "2001:db8::1");
  EXPECT_EQ(uri->port, 443);

  // A name made of digits is no address literal unless it is a dotted quad.
  uri = RequestUri::parsed("http://1234/");
  ASSERT_TRUE(uri);
  EXPECT_FALSE(uri->hostIsAddress);

  uri = RequestUri::parsed("ftp://files.test/");
  ASSERT_TRUE(uri);
  EXPECT_EQ(uri->port, 0);
}

TEST(RequestUriTest, RejectsWhatUriparserRejects) {
  // An empty text is a valid (relative) reference: no scheme, no host.
  auto empty = RequestUri::parsed("");
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->scheme.empty());
  EXPECT_TRUE(empty->host.empty());
  for (const char* text : {"not a uri", "http://a.test:80a/", "http://[::1/", "http://a b/"}) {
    EXPECT_FALSE(RequestUri::parsed(text)) << text;
  }
}

TEST(RequestUriTest, PortTextEndsAtItsEndOrANewline) {
  EXPECT_EQ(RequestUri::portOf("8080", "http"), std::optional<uint16_t>(8080));
  EXPECT_EQ(RequestUri::portOf("8080\n", "http"), std::optional<uint16_t>(8080));
  EXPECT_EQ(RequestUri::portOf("80a", "http"), std::nullopt);
  // The number ends at the first newline, whatever follows it.
  EXPECT_EQ(RequestUri::portOf("80\n1", "http"), std::optional<uint16_t>(80));
  EXPECT_EQ(RequestUri::portOf("80 ", "http"), std::nullopt);
  // Only the low 16 bits are kept.
  EXPECT_EQ(RequestUri::portOf("65616", "https"), std::optional<uint16_t>(80));
  // Without port text the scheme decides.
  EXPECT_EQ(RequestUri::portOf("", "https"), std::optional<uint16_t>(443));
  EXPECT_EQ(RequestUri::portOf("", "http"), std::optional<uint16_t>(80));
  EXPECT_EQ(RequestUri::portOf("", "HTTP"), std::optional<uint16_t>(0));
}

TEST(RequestUriTest, TextRangeWithoutFirstCharacterIsEmpty) {
  const char text[] = "a.test";
  EXPECT_EQ(Retra::textRangeToStr(UriTextRangeStructA{text, text + 6}), "a.test");
  EXPECT_EQ(Retra::textRangeToStr(UriTextRangeStructA{text + 2, text + 6}), "test");
  EXPECT_TRUE(Retra::textRangeToStr(UriTextRangeStructA{nullptr, nullptr}).empty());
}

}  // namespace
