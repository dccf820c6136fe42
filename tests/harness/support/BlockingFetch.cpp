#include "harness/support/BlockingFetch.h"

namespace HarnessTest {

namespace {

size_t append(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

}  // namespace

BlockingFetch::BlockingFetch(const std::string& url) : easy_(curl_easy_init()) {
  curl_easy_setopt(easy_, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(easy_, CURLOPT_WRITEDATA, &body_);
  curl_easy_setopt(easy_, CURLOPT_HEADERFUNCTION, append);
  curl_easy_setopt(easy_, CURLOPT_HEADERDATA, &headers_);
  curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy_, CURLOPT_TIMEOUT_MS, 20000L);  // no hung test, whatever a server does
}

BlockingFetch::~BlockingFetch() {
  curl_easy_cleanup(easy_);
}

CURLcode BlockingFetch::perform() {
  body_.clear();
  headers_.clear();
  return curl_easy_perform(easy_);
}

long BlockingFetch::status() const {
  long status = 0;
  curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
  return status;
}

CURLcode fetchCode(const std::string& url) {
  return BlockingFetch(url).perform();
}

}  // namespace HarnessTest
