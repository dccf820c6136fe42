// fetch-one: the smallest host of the Retra library. It fetches one URL, waits for the
// response to finish, and prints the status and the phase timings.
//
//   fetch-one http://127.0.0.1:8080/index.html
//   status 200, 612 bytes, errNone
//   connect 0.000121 s, TLS 0.000000 s, request 0.000170 s, response 0.000402 s, total 0.000611 s

#include <cstdio>

#include "Orb/ActivityManager.h"
#include "Retra/engine/Root.h"
#include "Retra/model/Request.h"
#include "Retra/model/Response.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: fetch-one URL\n");
    return 2;
  }

  // Bring the library up: directories, resolver and engine.
  Orb::Ptr<Retra::Root> root = Orb::allocate<Retra::Root>("retra");

  // Ask for the URL. The engine takes the request in at once and creates its response.
  const Retra::RequestKey key(Retra::GET, argv[1]);
  Retra::Request request(key);
  request.timeoutConnectIs(10);
  request.timeoutRequestIs(20);
  root->retraRequest()->requestIs(request);
  Orb::Ptr<Retra::Response> response = root->retraResponse()->response(key);

  // Run the activity loop until the response is finished (or 30 s have passed).
  const bool finished =
      response && Orb::activityManager()->runUntil([&] { return response->finished(); }, 30.0);

  int status = 1;
  if (finished) {
    std::printf("status %u, %llu bytes, %s\n", unsigned(response->statusCode()),
                static_cast<unsigned long long>(response->body().size()),
                Retra::stringValue(response->lastError()).charPtr());
    if (!response->lastErrorMessage().empty()) {
      std::printf("error: %s\n", response->lastErrorMessage().charPtr());
    }
    const Orb::Ptr<Retra::RequestTimer> timer = response->timer();
    if (timer) {
      std::printf("connect %.6f s, TLS %.6f s, request %.6f s, response %.6f s, total %.6f s\n",
                  timer->connect(), timer->sslHandshake(), timer->request(), timer->response(),
                  timer->total());
    }
    status = response->lastError() == Retra::errNone ? 0 : 1;
  } else {
    std::printf("no answer within 30 s\n");
  }

  // Stop transfers and libcurl, then let the rest go.
  response = nullptr;
  root->retraSm()->shutdown();
  root = nullptr;
  return status;
}
