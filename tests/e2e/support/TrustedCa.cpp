#include "e2e/support/TrustedCa.h"

#include <curl/curl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace E2eTest {

namespace {

// The CA bundle libcurl reads when a transfer names none.
std::string defaultBundle() {
  std::string path = "/etc/ssl/certs/ca-certificates.crt";
#if LIBCURL_VERSION_NUM >= 0x075400
  if (CURL* easy = curl_easy_init()) {
    char* info = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_CAINFO, &info) == CURLE_OK && info) path = info;
    curl_easy_cleanup(easy);
  }
#endif
  return path;
}

std::string contentsOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// 0 once this process has a mount namespace of its own whose mounts do not propagate back;
// otherwise the errno of the step that failed. Done once: later calls return the first result.
int privateMountNamespace() {
  static const int error = [] {
    if (::unshare(CLONE_NEWNS) != 0) return errno;
    if (::mount(nullptr, "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0) return errno;
    return 0;
  }();
  return error;
}

}  // namespace

TrustedCa::TrustedCa(const std::string& caCert) : bundlePath_(defaultBundle()) {
  const std::string ca = contentsOf(caCert);
  if (ca.empty()) {
    fail("cannot read " + caCert);
    return;
  }
  if (::access(bundlePath_.c_str(), R_OK) != 0) {
    fail("libcurl's CA bundle " + bundlePath_ + " is missing");
    return;
  }
  if (const int error = privateMountNamespace(); error != 0) {
    fail(std::string("no private mount namespace: ") + std::strerror(error));
    return;
  }
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/retra-ca-XXXXXX";
  const int fd = ::mkstemp(pattern.data());
  if (fd < 0) {
    fail("cannot create a copy of the bundle");
    return;
  }
  ::close(fd);
  copyPath_ = pattern;
  {
    std::ofstream out(copyPath_, std::ios::binary | std::ios::trunc);
    out << contentsOf(bundlePath_) << "\n" << ca;
    if (!out) {
      fail("cannot write " + copyPath_);
      return;
    }
  }
  if (::mount(copyPath_.c_str(), bundlePath_.c_str(), "none", MS_BIND, nullptr) != 0) {
    fail("cannot mount over " + bundlePath_ + ": " + std::strerror(errno));
    return;
  }
  active_ = true;
}

TrustedCa::~TrustedCa() {
  if (active_) ::umount2(bundlePath_.c_str(), 0);
  if (!copyPath_.empty()) ::unlink(copyPath_.c_str());
}

void TrustedCa::fail(const std::string& what) {
  reason_ = "cannot make libcurl trust the test CA: " + what;
}

}  // namespace E2eTest
