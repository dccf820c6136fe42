#include "Retra/engine/RequestUri.h"

#include <gtest/gtest.h>

#include <optional>
#include <tuple>

namespace {

using Retra::RequestUri;

TEST(RequestUriTest, TakesSchemeHostAndPortApartAndRejectsWhatUriparserRejects) {
  struct Case {
    const char* text;
    const char* scheme;
    const char* host;
    uint16_t port;
    bool hostIsAddress;
  };
  const Case cases[] = {
      {"https://a.test:8443/path?q=1#f", "https", "a.test", 8443, false},
      {"http://192.0.2.1/", "http", "192.0.2.1", 80, true},
      {"https://[2001:db8::1]/", "https", "2001:db8::1", 443, true},
      {"http://1234/", "http", "1234", 80, false},  // digits alone are no dotted quad
      {"ftp://files.test/", "ftp", "files.test", 0, false},
      {"", "", "", 0, false},  // a valid (relative) reference
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const auto uri = RequestUri::parsed(c.text);
    ASSERT_TRUE(uri);
    EXPECT_EQ(uri->scheme, c.scheme);
    EXPECT_EQ(uri->host, c.host);
    EXPECT_EQ(uri->port, c.port);
    EXPECT_EQ(uri->hostIsAddress, c.hostIsAddress);
  }
  for (const char* text : {"not a uri", "http://a.test:80a/", "http://[::1/", "http://a b/"}) {
    EXPECT_FALSE(RequestUri::parsed(text)) << text;
  }
}

TEST(RequestUriTest, PortTextEndsAtItsEndOrANewlineAndKeepsSixteenBits) {
  const std::tuple<const char*, const char*, std::optional<uint16_t>> cases[] = {
      {"8080", "http", 8080}, {"8080\n", "http", 8080}, {"80\n1", "http", 80},
      {"80a", "http", {}},    {"80 ", "http", {}},      {"65616", "https", 80},
      {"", "https", 443},     {"", "http", 80},         {"", "HTTP", 0},
  };
  for (const auto& [text, scheme, port] : cases) {
    EXPECT_EQ(RequestUri::portOf(text, scheme), port) << text << " " << scheme;
  }
  const char text[] = "a.test";
  EXPECT_EQ(Retra::textRangeToStr(UriTextRangeStructA{text + 2, text + 6}), "test");
  EXPECT_TRUE(Retra::textRangeToStr(UriTextRangeStructA{nullptr, nullptr}).empty());
}

}  // namespace
