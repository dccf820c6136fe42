#include "support/NginxServer.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "support/ChildProcess.h"
#include "support/FreePort.h"

namespace RetraTest {

namespace {

const char* const kNginx = "/usr/sbin/nginx";
const int kStartAttempts = 5;
const auto kStartLimit = std::chrono::seconds(15);

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
  std::string text;
  for (int line = 0; line < 16; ++line) {
    std::string row = "line " + std::to_string(line) + " of the small file ";
    while (row.size() < 63) row += char('a' + row.size() % 26);
    text += row + "\n";
  }
  return text;  // 16 lines of 64 bytes
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

std::string NginxServer::httpsLocalhostUrl(const std::string& path) const {
  return "https://localhost:" + std::to_string(tlsPort_) + path;
}

std::string NginxServer::httpsWrongNameUrl(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(wrongNamePort_) + path;
}

std::string NginxServer::httpsSelfSignedUrl(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(selfSignedPort_) + path;
}

void NginxServer::writeContent() const {
  namespace fs = std::filesystem;
  fs::create_directories(root() + "/basic");
  fs::create_directories(dir_.path("temp"));
  dir_.write("root/small.txt", smallText());
  dir_.write("root/basic/secret.txt", "secret\n");
  std::string large = dir_.write("root/large.bin", "");
  if (::truncate(large.c_str(), off_t(largeSize_)) != 0) {
    throw std::runtime_error("cannot size " + large);
  }
  std::string hash = ChildProcess::run({"/usr/bin/openssl", "passwd", "-apr1", kPassword});
  while (!hash.empty() && (hash.back() == '\n' || hash.back() == '\r')) hash.pop_back();
  dir_.write("htpasswd", std::string(kUser) + ":" + hash + "\n");
}

void NginxServer::writeConfig() const {
  const std::string& d = dir_.path();
  std::string routes = "    root " + root() + ";\n" +
                       "    location = /status/404 { return 404; }\n"
                       "    location = /status/500 { return 500; }\n"
                       "    location = /redirect/3 { return 302 /redirect/2; }\n"
                       "    location = /redirect/2 { return 302 /redirect/1; }\n"
                       "    location = /redirect/1 { return 302 /small.txt; }\n"
                       "    location = /loop { return 302 /loop; }\n"
                       "    location /basic/ {\n"
                       "      auth_basic \"Retra test\";\n"
                       "      auth_basic_user_file " +
                       d +
                       "/htpasswd;\n"
                       "    }\n";
  auto tlsServer = [&](uint16_t port, const std::string& cert, const std::string& key) {
    return "  server {\n" + listenOn(port, " ssl") + "    ssl_certificate " + cert +
           ";\n    ssl_certificate_key " + key + ";\n" + routes + "  }\n";
  };
  std::string config =
      std::string(::geteuid() == 0 ? "user root;\n" : "") +
      "daemon off;\n"
      "master_process off;\n"
      "worker_processes 1;\n"
      "pid " +
      d +
      "/nginx.pid;\n"
      "error_log " +
      d +
      "/error.log notice;\n"
      "events { worker_connections 1024; }\n"
      "http {\n"
      "  access_log off;\n"
      "  server_tokens off;\n"
      "  client_body_temp_path " +
      d +
      "/temp/body;\n"
      "  proxy_temp_path " +
      d +
      "/temp/proxy;\n"
      "  fastcgi_temp_path " +
      d +
      "/temp/fastcgi;\n"
      "  uwsgi_temp_path " +
      d +
      "/temp/uwsgi;\n"
      "  scgi_temp_path " +
      d +
      "/temp/scgi;\n"
      "  types {\n"
      "    text/plain txt;\n"
      "    text/html html;\n"
      "    application/json json;\n"
      "    application/octet-stream bin;\n"
      "  }\n"
      "  default_type application/octet-stream;\n"
      "  sendfile on;\n"
      "  keepalive_timeout 60s;\n"
      "  keepalive_requests 10000;\n"
      "  absolute_redirect off;\n"
      "  ssl_protocols TLSv1.2 TLSv1.3;\n"
      "  server {\n" +
      listenOn(port_) + "    server_name localhost;\n" + routes + "  }\n" +
      tlsServer(tlsPort_, certificates_.serverCert(), certificates_.serverKey()) +
      tlsServer(wrongNamePort_, certificates_.wrongNameCert(), certificates_.wrongNameKey()) +
      tlsServer(selfSignedPort_, certificates_.selfSignedCert(), certificates_.selfSignedKey()) +
      "}\n";
  dir_.write("nginx.conf", config);
}

bool NginxServer::start() {
  port_ = FreePort::onIp4AndIp6();
  do tlsPort_ = FreePort::onIp4AndIp6();
  while (tlsPort_ == port_);
  do wrongNamePort_ = FreePort::onIp4AndIp6();
  while (wrongNamePort_ == port_ || wrongNamePort_ == tlsPort_);
  do selfSignedPort_ = FreePort::onIp4AndIp6();
  while (selfSignedPort_ == port_ || selfSignedPort_ == tlsPort_ ||
         selfSignedPort_ == wrongNamePort_);
  writeConfig();
  dir_.write("error.log", "");
  nginx_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{kNginx, "-p", dir_.path() + "/", "-c", dir_.path("nginx.conf"), "-e",
                               dir_.path("error.log")},
      dir_.path("stdout.log"), dir_.path());
  auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  for (uint16_t port : {port_, tlsPort_, wrongNamePort_, selfSignedPort_}) {
    for (bool ipv6 : {false, true}) {
      while (!FreePort::accepts(port, ipv6)) {
        if (!nginx_->isRunning()) {
          std::string log = errorLog();
          nginx_.reset();
          if (log.find("Address already in use") != std::string::npos) return false;
          throw std::runtime_error("nginx did not start:\n" + log);
        }
        if (std::chrono::steady_clock::now() >= deadline) {
          nginx_.reset();
          throw std::runtime_error("nginx did not listen in time:\n" + errorLog());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
  }
  return true;
}

}  // namespace RetraTest
