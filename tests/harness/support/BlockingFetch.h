#pragma once

#include <curl/curl.h>

#include <string>

namespace HarnessTest {

// One plain blocking libcurl transfer, so the test servers are checked independently of the
// library's own engine. Options go straight to curl_easy_setopt; perform() may be called again
// on the same handle (reusing its connection).
//
//   HarnessTest::BlockingFetch fetch(url);
//   fetch.option(CURLOPT_CAINFO, caPath.c_str());
//   EXPECT_EQ(fetch.perform(), CURLE_OK);
//   EXPECT_EQ(fetch.status(), 200);
class BlockingFetch {
 public:
  explicit BlockingFetch(const std::string& url);
  ~BlockingFetch();
  BlockingFetch(const BlockingFetch&) = delete;
  BlockingFetch& operator=(const BlockingFetch&) = delete;

  template <typename Value>
  BlockingFetch& option(CURLoption option, Value value) {
    curl_easy_setopt(easy_, option, value);
    return *this;
  }

  // Runs the transfer; the body and headers of earlier runs are cleared first.
  CURLcode perform();

  // The last answer's status code (0 when none arrived).
  [[nodiscard]] long status() const;
  [[nodiscard]] const std::string& body() const { return body_; }
  // Every header line received, as received (CRLFs included), over all redirects.
  [[nodiscard]] const std::string& headers() const { return headers_; }
  [[nodiscard]] CURL* easy() const { return easy_; }

 private:
  CURL* easy_;
  std::string body_;
  std::string headers_;
};

// Shorthand for a GET with no options: the result code.
CURLcode fetchCode(const std::string& url);

}  // namespace HarnessTest
