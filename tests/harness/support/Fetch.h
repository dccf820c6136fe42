#pragma once

#include <curl/curl.h>

#include <functional>
#include <string>

namespace HarnessTest {

// The outcome of one transfer.
struct Fetched {
  CURLcode code = CURLE_OK;
  long status = 0;
  std::string body;
};

// Fetches `url` with a plain blocking libcurl handle, so that the test servers are checked
// independently of the library's engine; `configure` sets further options on the handle.
//
//   auto got = HarnessTest::fetch(url, [](CURL* easy) { curl_easy_setopt(easy, CURLOPT_...); });
inline Fetched fetch(const std::string& url, const std::function<void(CURL*)>& configure = {}) {
  Fetched got;
  auto append = +[](char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
  };
  CURL* easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &got.body);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 20000L);  // no hung test, whatever a server does
  if (configure) configure(easy);
  got.code = curl_easy_perform(easy);
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &got.status);
  curl_easy_cleanup(easy);
  return got;
}

}  // namespace HarnessTest
