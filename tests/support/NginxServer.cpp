#include "support/NginxServer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <thread>

#include "support/ChildProcess.h"
#include "support/LoopbackHttpServer.h"

namespace RetraTest {

namespace {

const char* const kNginx = "/usr/sbin/nginx";
const int kStartAttempts = 5;
const auto kStartLimit = std::chrono::seconds(15);

// A TCP port free on both 127.0.0.1 and ::1 when asked (start() retries if it is taken later).
uint16_t freePort() {
  for (;;) {
    const uint16_t port = LoopbackHttpServer::freePort();
    if (LoopbackHttpServer::freePort(true, port) == port) return port;
  }
}

// Makes `name`.key and a self-signed `name`.crt for `altNames`; returns the key's pin.
std::string certificate(const TempDir& dir, const std::string& name, const std::string& altNames) {
  const std::string openssl = "cd " + dir.path() + " && /usr/bin/openssl ";
  ChildProcess::run(openssl + "genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out " +
                    name + ".key && " + openssl + "req -x509 -new -key " + name +
                    ".key -subj /CN=" + name + " -days 30 -addext subjectAltName=" + altNames +
                    " -out " + name + ".crt");
  std::string pin = ChildProcess::run(openssl + "pkey -in " + name +
                                      ".key -pubout -outform DER | /usr/bin/openssl dgst -sha256 "
                                      "-binary | /usr/bin/openssl base64 -A");
  while (!pin.empty() && std::isspace(static_cast<unsigned char>(pin.back()))) pin.pop_back();
  return "sha256//" + pin;
}

std::string listenOn(uint16_t port, const char* options = "") {
  std::string p = std::to_string(port);
  return "    listen 127.0.0.1:" + p + options + ";\n    listen [::1]:" + p + options + ";\n";
}

}  // namespace

NginxServer::NginxServer(uint64_t largeSize) : largeSize_(largeSize) {
  writeContent();
  for (int attempt = 1;; ++attempt) {
    if (start()) return;
    if (attempt == kStartAttempts) {
      throw std::runtime_error("nginx found no free ports:\n" + errorLog());
    }
  }
}

NginxServer::~NginxServer() = default;

std::string NginxServer::smallText() {
  std::string text(1024, '\n');
  for (size_t i = 0; i < text.size(); ++i) text[i] = i % 64 == 63 ? '\n' : char('a' + i % 23);
  return text;
}

std::string NginxServer::errorLog() const {
  return dir_.read("error.log") + dir_.read("stdout.log");
}

std::string NginxServer::httpUrl(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::string NginxServer::httpUrl6(const std::string& path) const {
  return "http://[::1]:" + std::to_string(port_) + path;
}

std::string NginxServer::httpsUrl(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(tlsPort_) + path;
}

std::string NginxServer::httpsWrongNameUrl(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(wrongNamePort_) + path;
}

void NginxServer::writeContent() {
  serverPin_ = certificate(dir_, "server", "DNS:localhost,IP:127.0.0.1,IP:::1");
  otherPin_ = certificate(dir_, "wrong", "DNS:wrong.example");
  namespace fs = std::filesystem;
  fs::create_directories(root() + "/basic");
  fs::create_directories(dir_.path("temp"));
  dir_.write("root/small.txt", smallText());
  dir_.write("root/basic/secret.txt", "secret\n");
  std::string large = dir_.write("root/large.bin", "");
  if (::truncate(large.c_str(), off_t(largeSize_)) != 0) {
    throw std::runtime_error("cannot size " + large);
  }
  std::string hash = ChildProcess::run(std::string("/usr/bin/openssl passwd -apr1 ") + kPassword);
  while (!hash.empty() && (hash.back() == '\n' || hash.back() == '\r')) hash.pop_back();
  dir_.write("htpasswd", std::string(kUser) + ":" + hash + "\n");
}

void NginxServer::writeConfig() const {
  const std::string& d = dir_.path();
  const std::string routes =
      "    root " + root() + ";\n" +
      "    location = /status/404 { return 404; }\n"
      "    location = /redirect/1 { return 302 /small.txt; }\n"
      "    location /basic/ { auth_basic \"Retra test\"; auth_basic_user_file " +
      d + "/htpasswd; }\n";
  auto server = [&](uint16_t port, const std::string& tls) {
    return "  server {\n" + listenOn(port, tls.empty() ? "" : " ssl") + tls + routes + "  }\n";
  };
  auto certificate = [](const std::string& name) {
    return "    ssl_certificate " + name + ".crt;\n    ssl_certificate_key " + name + ".key;\n";
  };
  std::string temp;
  for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    temp += "  " + std::string(kind) + "_temp_path " + d + "/temp/" + kind + ";\n";
  }
  dir_.write("nginx.conf", std::string(::geteuid() == 0 ? "user root;\n" : "") +
                               "daemon off;\nmaster_process off;\nworker_processes 1;\npid " + d +
                               "/nginx.pid;\nerror_log " + d +
                               "/error.log notice;\nevents { worker_connections 1024; }\nhttp {\n" +
                               temp +
                               "  access_log off;\n  server_tokens off;\n  absolute_redirect off;\n"
                               "  types { text/plain txt; application/octet-stream bin; }\n"
                               "  keepalive_requests 10000;\n" +
                               server(port_, "") + server(tlsPort_, certificate(d + "/server")) +
                               server(wrongNamePort_, certificate(d + "/wrong")) + "}\n");
}

bool NginxServer::start() {
  std::set<uint16_t> ports;
  while (ports.size() < 3) ports.insert(freePort());
  auto port = ports.begin();
  port_ = *port++;
  tlsPort_ = *port++;
  wrongNamePort_ = *port;
  writeConfig();
  dir_.write("error.log", "");
  nginx_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{kNginx, "-p", dir_.path() + "/", "-c", dir_.path("nginx.conf"), "-e",
                               dir_.path("error.log")},
      dir_.path("stdout.log"), dir_.path());
  // nginx writes its pid file once it listens on every port, and exits if one is taken.
  const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  while (dir_.read("nginx.pid").empty()) {
    const std::string log = errorLog();
    if (!nginx_->isRunning() && log.find("Address already in use") != std::string::npos) {
      return false;
    }
    if (!nginx_->isRunning() || std::chrono::steady_clock::now() >= deadline) {
      throw std::runtime_error("nginx did not start:\n" + log);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace RetraTest
