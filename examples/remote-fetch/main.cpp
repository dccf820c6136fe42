// remote-fetch: fetch-one against the service. The same host, with the line that creates the
// root changed: the request goes to retrad over its socket, and the response is the service's,
// mirrored into this process with the same notifications.
//
//   retrad --socket /tmp/retrad.sock &
//   RETRA_SOCKET=/tmp/retrad.sock remote-fetch http://127.0.0.1:8080/index.html
//   status 200, 612 bytes, errNone
//   connect 0.000121 s, TLS 0.000000 s, request 0.000170 s, response 0.000402 s, total 0.000611 s

#include <cstdio>

#include "Orb/ActivityManager.h"
#include "Retra/model/Request.h"
#include "Retra/model/Response.h"
#include "Retra/remote/RemoteRoot.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: remote-fetch URL   (the service's socket: $RETRA_SOCKET)\n");
    return 2;
  }

  // Connect to the service (this was `Orb::allocate<Retra::Root>("retra")`). Ephemeral: the
  // request is this process's own and is withdrawn when it exits.
  Retra::RemoteRoot::Options options;
  options.ephemeral = true;
  options.reconnect = false;
  Orb::Ptr<Retra::RemoteRoot> root = Orb::allocate<Retra::RemoteRoot>("retra", options);

  const Retra::RequestKey key(Retra::GET, argv[1]);
  Retra::Request request(key);
  request.timeoutConnectIs(10);
  request.timeoutRequestIs(20);
  root->retraRequest()->requestIs(request);

  // The response appears once the service has taken the request in; run until it is finished.
  Orb::Ptr<Retra::Response> response;
  const bool finished = Orb::activityManager()->runUntil(
      [&] {
        response = root->retraResponse()->response(key);
        return (response && response->finished()) || !root->connectError().empty();
      },
      30.0);

  int status = 1;
  if (!root->connectError().empty()) {
    std::printf("no service: %s\n", root->connectError().charPtr());
  } else if (finished) {
    std::printf("status %u, %llu bytes, %s\n", unsigned(response->statusCode()),
                static_cast<unsigned long long>(response->body().size()),
                Retra::stringValue(response->lastError()).charPtr());
    if (const Orb::Ptr<Retra::RequestTimer> timer = response->timer()) {
      std::printf("connect %.6f s, TLS %.6f s, request %.6f s, response %.6f s, total %.6f s\n",
                  timer->connect(), timer->sslHandshake(), timer->request(), timer->response(),
                  timer->total());
    }
    status = response->lastError() == Retra::errNone ? 0 : 1;
  } else {
    std::printf("no answer within 30 s\n");
  }
  root->close();
  return status;
}
