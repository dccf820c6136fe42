#include "support/FaultAnswers.h"

#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

#include "support/FreePort.h"

namespace RetraTest {

namespace {

using Received = LoopbackHttpServer::Received;

std::string okHead(size_t contentLength) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(contentLength) + "\r\n";
}

}  // namespace

std::string FaultAnswers::refusingUrl(const std::string& path) {
  return "http://127.0.0.1:" + std::to_string(FreePort::onLoopback()) + path;
}

FaultAnswers::Handler FaultAnswers::silence(LoopbackHttpServer& server) {
  return [&server](int, const Received&) { server.waitUntilStopping(); };
}

FaultAnswers::Handler FaultAnswers::cutBody(std::string sent, size_t announced) {
  return [sent = std::move(sent), announced](int socket, const Received&) {
    LoopbackHttpServer::sendAll(socket, okHead(announced) + "Connection: close\r\n\r\n" + sent);
  };
}

FaultAnswers::Handler FaultAnswers::drip(LoopbackHttpServer& server, std::string bytes,
                                         std::chrono::milliseconds interval) {
  return [&server, bytes = std::move(bytes), interval](int socket, const Received&) {
    for (char byte : bytes) {
      if (!LoopbackHttpServer::sendAll(socket, std::string(1, byte))) return;
      if (!server.pauseFor(interval)) return;
    }
  };
}

FaultAnswers::Handler FaultAnswers::dripAfter(LoopbackHttpServer& server, std::string atOnce,
                                              std::string dripped,
                                              std::chrono::milliseconds interval) {
  return [atOnce = std::move(atOnce), dripRest = drip(server, std::move(dripped), interval)](
             int socket, const Received& request) {
    if (LoopbackHttpServer::sendAll(socket, atOnce)) dripRest(socket, request);
  };
}

FaultAnswers::Handler FaultAnswers::holdUntilClientCloses(LoopbackHttpServer& server,
                                                          std::atomic<size_t>& closedByClient) {
  return [&server, &closedByClient](int socket, const Received&) {
    char buffer[512];
    while (true) {
      pollfd watch{socket, POLLIN, 0};
      const int ready = ::poll(&watch, 1, 50);
      // The server's own shutdown of the socket also reads as an end: it is not the client's.
      if (!server.pauseFor(std::chrono::milliseconds(0))) return;
      if (ready <= 0) continue;
      const ssize_t n = ::recv(socket, buffer, sizeof buffer, 0);
      if (n <= 0) {
        ++closedByClient;
        return;
      }
    }
  };
}

FaultAnswers::Handler FaultAnswers::redirectCountdown() {
  return [](int socket, const Received& request) {
    const std::string& target = request.target;
    const size_t query = target.find("?left=");
    const long left = query == std::string::npos ? 0 : std::atol(target.c_str() + query + 6);
    if (left <= 0) {
      LoopbackHttpServer::sendAll(socket, LoopbackHttpServer::bytesOf({200, {}, "end"}));
      return;
    }
    const std::string next = target.substr(0, query) + "?left=" + std::to_string(left - 1);
    LoopbackHttpServer::sendAll(socket,
                                LoopbackHttpServer::bytesOf({302, {{"Location", next}}, ""}));
  };
}

FaultAnswers::Handler FaultAnswers::notHttp(std::string bytes) {
  return [bytes = std::move(bytes)](int socket, const Received&) {
    LoopbackHttpServer::sendAll(socket, bytes);
  };
}

FaultAnswers::Handler FaultAnswers::longHeaderLine(size_t size) {
  return [size](int socket, const Received&) {
    std::string line = "X-Long: ";
    line.resize(size < line.size() ? line.size() : size, 'a');
    LoopbackHttpServer::sendAll(socket, okHead(2) + line + "\r\nConnection: close\r\n\r\nok");
  };
}

FaultAnswers::Handler FaultAnswers::manyHeaderLines(size_t count) {
  return [count](int socket, const Received&) {
    std::string head = okHead(2);
    for (size_t i = 0; i < count; ++i) {
      head += "X-Header-" + std::to_string(i) + ": value " + std::to_string(i) + "\r\n";
    }
    LoopbackHttpServer::sendAll(socket, head + "Connection: close\r\n\r\nok");
  };
}

FaultAnswers::Handler FaultAnswers::chunked(std::vector<std::string> chunks) {
  return [chunks = std::move(chunks)](int socket, const Received&) {
    std::string out =
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nTrailer: X-Trailer\r\n"
        "Connection: close\r\n\r\n";
    char size[32];
    for (const auto& chunk : chunks) {
      if (chunk.empty()) continue;
      snprintf(size, sizeof size, "%zx\r\n", chunk.size());
      out += size + chunk + "\r\n";
    }
    LoopbackHttpServer::sendAll(socket, out + "0\r\nX-Trailer: done\r\n\r\n");
  };
}

const char* FaultAnswers::oddHeaderBlock() {
  return "X-No-Space:tight\r\n"
         "X-Trailing-Spaces: value   \r\n"
         "X-Folded: first part\r\n"
         "  continued part\r\n"
         "X-Twice: one\r\n"
         "X-Twice: two\r\n"
         "X-Empty:\r\n";
}

FaultAnswers::Handler FaultAnswers::oddHeaderLines(std::string body) {
  return [body = std::move(body)](int socket, const Received&) {
    LoopbackHttpServer::sendAll(socket, std::string("HTTP/1.1 200 OK\r\n") + oddHeaderBlock() +
                                            "Content-Length: " + std::to_string(body.size()) +
                                            "\r\nConnection: close\r\n\r\n" + body);
  };
}

FaultAnswers::Handler FaultAnswers::headerLineWithoutColon() {
  return [](int socket, const Received&) {
    LoopbackHttpServer::sendAll(socket, okHead(2) +
                                            "this line has no colon\r\n"
                                            "Connection: close\r\n\r\nok");
  };
}

}  // namespace RetraTest
