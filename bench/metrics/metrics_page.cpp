// metrics-page: how long a metrics page of many responses takes to build and to serve, and how
// long the activity loop is held meanwhile. Builds one user's responses as finished fetches
// (no transfers), then builds the page in one go and in slices, then serves it through
// MetricsServer to a libcurl client on another thread while the loop keeps a per-turn probe.
#include <curl/curl.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "Orb/ActivityManager.h"
#include "Retra/engine/Root.h"
#include "metrics/FetchBook.h"
#include "metrics/MetricsServer.h"
#include "metrics/PageBuilder.h"

namespace {

using Clock = std::chrono::steady_clock;
using RetraMetrics::Format;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Wakes every loop turn and keeps the longest time between two turns.
class TurnProbe : public Orb::Clock::NotifieeConst {
 public:
  void onTime() override {
    const auto now = Clock::now();
    longest = std::max(longest, std::chrono::duration<double>(now - last).count());
    last = now;
    ++turns;
    timeMinIs(Orb::activityManager()->currentTime());
  }
  Clock::time_point last = Clock::now();
  double longest = 0;
  uint64_t turns = 0;
};

void fillResponses(Retra::ResponseDir& dir, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const std::string uri = "http://127.0.0.1:8080/item/" + std::to_string(i) + "?view=full";
    auto response = dir.responseIs(Retra::RequestKey(Retra::GET, Orb::String(uri)));
    response->requestStateIs(Retra::stateRecvBody);
    response->timerIs()->connectInc(0.001);
    response->timerIs()->requestInc(0.0012);
    response->timerIs()->responseInc(0.004);
    response->timerIs()->totalInc(0.006);
    response->counterIs()->bytesDownloadInc(1024 + i);
    response->statusCodeIs(i % 10 == 0 ? 404 : 200);
    if (i % 10 == 0) response->lastErrorIs(Retra::errHttpStatusCode);
    response->contentLengthDownloadIs(1024);
    response->lastUpdateTimeIs(1.7e9 + double(i));
    response->lastChangeTimeIs(1.7e9);
    response->requestStateIs(Retra::stateFinished);
  }
}

size_t seriesIn(const std::string& page) {
  size_t series = 0;
  for (size_t at = 0; at < page.size(); at = page.find('\n', at) + 1) {
    if (page[at] != '#') ++series;
  }
  return series;
}

}  // namespace

int main(int argc, char** argv) {
  size_t responses = 100000;
  size_t slice = 20000;
  CLI::App app{"Times building and serving the metrics page of RESPONSES responses."};
  app.add_option("--responses", responses, "Responses on the page")->capture_default_str();
  app.add_option("--slice", slice, "Series written per loop turn")->capture_default_str();
  CLI11_PARSE(app, argc, argv);

  auto root = Orb::allocate<Retra::Root>("metricsBench");
  root->retraSm()->shutdown();
  (void)root->retraSmDel();  // the engine leaves the responses as they are written here
  RetraMetrics::FetchBook book;
  book.userIs(1000, root);
  fillResponses(*root->retraResponse(), responses);

  auto start = Clock::now();
  RetraMetrics::PageBuilder whole(Format::text, book, {1, 0});
  whole.step(SIZE_MAX);
  const double wholeSeconds = secondsSince(start);
  const size_t series = seriesIn(whole.page());

  start = Clock::now();
  RetraMetrics::PageBuilder sliced(Format::openMetrics, book, {1, 0});
  double longestSlice = 0;
  size_t slices = 0;
  for (bool done = false; !done; ++slices) {
    const auto sliceStart = Clock::now();
    done = sliced.step(slice);
    longestSlice = std::max(longestSlice, secondsSince(sliceStart));
  }
  const double slicedSeconds = secondsSince(start);

  RetraMetrics::MetricsServer server(
      "127.0.0.1:0",
      [&](Format format) {
        return std::make_unique<RetraMetrics::PageBuilder>(format, book,
                                                           RetraMetrics::PageBuilder::Gauges{1, 0});
      },
      slice);
  auto probe = Orb::allocate<TurnProbe>();
  probe->notifierIs(Orb::activityManager()->clock());
  probe->timeMinIs(0);
  double serveSeconds = 0;
  double firstByteSeconds = 0;
  size_t served = 0;
  std::atomic<bool> clientDone = false;
  std::thread client([&] {
    const std::string url = "http://127.0.0.1:" + std::to_string(server.port()) + "/metrics";
    std::string body;
    CURL* easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(
        easy, CURLOPT_WRITEFUNCTION, +[](char* data, size_t, size_t n, void* out) {
          static_cast<std::string*>(out)->append(data, n);
          return n;
        });
    const auto fetchStart = Clock::now();
    if (curl_easy_perform(easy) == CURLE_OK) served = body.size();
    serveSeconds = secondsSince(fetchStart);
    curl_easy_getinfo(easy, CURLINFO_STARTTRANSFER_TIME, &firstByteSeconds);
    curl_easy_cleanup(easy);
    clientDone = true;
  });
  probe->longest = 0;
  probe->last = Clock::now();
  while (!clientDone) Orb::activityManager()->runOnce(0.05);
  client.join();
  probe->notifierIs(nullptr);

  std::printf(
      "{\"responses\": %zu, \"series\": %zu, \"page_bytes\": %zu, \"build_seconds\": %.3f, "
      "\"sliced_build_seconds\": %.3f, \"slices\": %zu, \"longest_slice_seconds\": %.4f, "
      "\"first_byte_seconds\": %.3f, \"serve_seconds\": %.3f, \"served_bytes\": %zu, "
      "\"longest_loop_turn_seconds\": %.4f, "
      "\"loop_turns_while_serving\": %llu}\n",
      responses, series, whole.page().size(), wholeSeconds, slicedSeconds, slices, longestSlice,
      firstByteSeconds, serveSeconds, served, probe->longest,
      static_cast<unsigned long long>(probe->turns));
  return served > 0 ? 0 : 1;
}
