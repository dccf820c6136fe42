#include "support/HttpbinServer.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include "support/ChildProcess.h"

namespace RetraTest {

namespace {

// Debian's interpreter: the one that sees python3-httpbin, whatever python3 PATH finds first.
const char* const kPython = "/usr/bin/python3";
const auto kStartLimit = std::chrono::seconds(30);

// Binds to port 0 so no other socket can take the port between choosing and listening, then
// publishes the port with a rename, so the reader never sees half a number.
const char* const kLauncher = R"(
import os, sys
from werkzeug.serving import make_server
from httpbin import app
server = make_server("127.0.0.1", 0, app, threaded=True)
with open("port.tmp", "w") as f:
    f.write(str(server.port))
os.rename("port.tmp", "port")
server.serve_forever()
)";

}  // namespace

HttpbinServer::HttpbinServer() {
  dir_.write("launcher.py", kLauncher);
  python_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{kPython, "-I", "-u", dir_.path("launcher.py")},
      dir_.path("httpbin.log"), dir_.path());
  auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  // The port is published once the server listens: connections wait in its backlog.
  while (port_ == 0) {
    const std::string port = dir_.read("port");
    if (!port.empty()) port_ = uint16_t(std::stoul(port));
    if (!python_->isRunning()) {
      python_.reset();
      throw std::runtime_error("httpbin did not start:\n" + log());
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      python_.reset();
      throw std::runtime_error("httpbin did not answer in time:\n" + log());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

HttpbinServer::~HttpbinServer() = default;

std::string HttpbinServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::string HttpbinServer::log() const {
  return dir_.read("httpbin.log");
}

}  // namespace RetraTest
