#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "support/LoopbackHttpServer.h"

namespace RetraTest {

// Misbehaving servers for LoopbackHttpServer: each function makes a handler for routeIs() that
// answers a request the way a broken or hostile server would. Handlers that take their time
// (silence, drip) wait through the server, so destroying the server ends them promptly.
//
//   RetraTest::LoopbackHttpServer server;
//   server.routeIs("/cut", RetraTest::FaultAnswers::cutBody("half", 100));
//   server.routeIs("/silent", RetraTest::FaultAnswers::silence(server));
//   curl ... server.url("/cut") ...      // CURLE_PARTIAL_FILE
//   curl ... RetraTest::FaultAnswers::refusingUrl() ...   // CURLE_COULDNT_CONNECT
class FaultAnswers {
 public:
  using Handler = LoopbackHttpServer::Handler;

  // "http://127.0.0.1:PORT" + path on a port nothing listens on: connections are refused.
  [[nodiscard]] static std::string refusingUrl(const std::string& path = "/");

  // Reads the request and never answers; holds the connection until the server is destroyed.
  [[nodiscard]] static Handler silence(LoopbackHttpServer& server);
  // Announces `announced` bytes of body (Content-Length), sends only `sent`, then closes.
  [[nodiscard]] static Handler cutBody(std::string sent, size_t announced);
  // Writes `bytes` one byte every `interval`, then closes (see LoopbackHttpServer::bytesOf).
  [[nodiscard]] static Handler drip(LoopbackHttpServer& server, std::string bytes,
                                    std::chrono::milliseconds interval);
  // Writes `atOnce` in one go, then `dripped` one byte every `interval`, then closes: a server
  // that stalls after the status line, in the header block or in the body.
  [[nodiscard]] static Handler dripAfter(LoopbackHttpServer& server, std::string atOnce,
                                         std::string dripped, std::chrono::milliseconds interval);
  // Reads the request and never answers; holds the connection until the client closes it (then
  // adds one to `closedByClient`) or the server is destroyed (then counts nothing).
  [[nodiscard]] static Handler holdUntilClientCloses(LoopbackHttpServer& server,
                                                     std::atomic<size_t>& closedByClient);
  // 302 to "<path>?left=N-1" while the query "left=N" is above 0, then a 200 with body "end":
  // a chain of N redirects (a request without "left" starts at 0).
  [[nodiscard]] static Handler redirectCountdown();
  // Writes `bytes` that are no HTTP at all, then closes.
  [[nodiscard]] static Handler notHttp(std::string bytes = "SSH-2.0-OpenSSH_9.2\r\n\r\nnot http");
  // A 200 answer with one header line ("X-Long: aaa...") of `size` bytes, CRLF excluded.
  [[nodiscard]] static Handler longHeaderLine(size_t size);
  // A 200 answer with `count` header lines besides Content-Length and Connection.
  [[nodiscard]] static Handler manyHeaderLines(size_t count);
  // A 200 answer with Transfer-Encoding: chunked, one chunk per string (empty strings are
  // skipped, as an empty chunk would end the body), then the last chunk and a trailer.
  [[nodiscard]] static Handler chunked(std::vector<std::string> chunks);
  // A 200 answer whose header lines are unusual but readable: no space after the colon,
  // trailing spaces, a folded continuation line (obsolete but tolerated), a name given twice,
  // an empty value. The body is `body`, with a correct Content-Length.
  [[nodiscard]] static Handler oddHeaderLines(std::string body = "odd but readable");
  // The header block oddHeaderLines() writes between the status line and Content-Length.
  [[nodiscard]] static const char* oddHeaderBlock();
  // A 200 answer with a header line that has no colon at all, which clients reject.
  [[nodiscard]] static Handler headerLineWithoutColon();
};

}  // namespace RetraTest
