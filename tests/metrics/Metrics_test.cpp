// The metrics pages: both formats as promtool reads them, and a real Prometheus scraping a real
// retrad.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "Orb/ActivityManager.h"
#include "Retra/engine/Root.h"
#include "Retra/remote/RemoteRoot.h"
#include "dnsr/support/Dnsmasq.h"
#include "metrics/Exposition.h"
#include "metrics/FetchBook.h"
#include "metrics/PageBuilder.h"
#include "service/support/ServiceProcess.h"
#include "support/ChildProcess.h"
#include "support/LoopbackHttpServer.h"
#include "support/NginxServer.h"
#include "support/TempDir.h"
#include "support/TimeScale.h"

namespace {

using RetraMetrics::Format;
using RetraMetrics::PageBuilder;

struct Reply {
  long status = 0;
  std::string body;
  std::string contentType;
};

Reply httpRequest(const std::string& url, const std::string& accept = "",
                  const char* method = nullptr) {
  Reply reply;
  CURL* easy = curl_easy_init();
  curl_slist* headers = accept.empty() ? nullptr : curl_slist_append(nullptr, accept.c_str());
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  if (method) curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT, 10L);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &reply.body);
  curl_easy_setopt(
      easy, CURLOPT_WRITEFUNCTION, +[](char* data, size_t, size_t n, void* out) {
        static_cast<std::string*>(out)->append(data, n);
        return n;
      });
  if (curl_easy_perform(easy) == CURLE_OK) {
    char* type = nullptr;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &reply.status);
    curl_easy_getinfo(easy, CURLINFO_CONTENT_TYPE, &type);
    reply.contentType = type ? type : "";
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(easy);
  return reply;
}

std::string pageOf(Format format, const RetraMetrics::FetchBook& book, size_t budget) {
  PageBuilder page(format, book, {2, 3});
  while (!page.step(budget)) {
  }
  return page.page();
}

// What promtool finds wrong with `page`; empty when nothing.
std::string promtoolComplaints(const std::string& page) {
  RetraTest::TempDir dir;
  return RetraTest::ChildProcess::run("promtool check metrics < " + dir.write("page.txt", page) +
                                      " 2>&1; true");
}

std::string labels(const std::string& uri) {
  return "{uid=\"" + std::to_string(::getuid()) + "\",method=\"GET\",uri=\"" + uri + "\"";
}

}  // namespace

// One user's responses in both formats: promtool accepts them whether they were written in one
// go or a series at a time, odd URIs are escaped, and each response shows its last fetch.
TEST(MetricsPage, BothFormatsPassPromtoolEscapeLabelsAndShowTheLastFetch) {
  RetraTest::NginxServer nginx;
  DnsrTest::Dnsmasq dns("127.0.0.1 web.test\n");
  ::setenv("DNSR_SERVERS", dns.server().c_str(), 1);
  auto root = Orb::allocate<Retra::Root>("metricsPage");
  ::unsetenv("DNSR_SERVERS");
  RetraMetrics::FetchBook book;
  book.userIs(::getuid(), root);
  const std::string served = nginx.httpUrl("/small.txt");
  const std::string refused = RetraTest::LoopbackHttpServer::refusingUrl();
  const std::string odd = "http://127.0.0.1:1/a\"b\\c\nd";
  const std::string named = "http://web.test:" + std::to_string(nginx.port()) + "/small.txt";
  for (const std::string& uri : {served, refused, odd, named}) {
    root->retraRequest()->requestIs(Retra::Request(Retra::RequestKey(Retra::GET, uri)));
  }
  ASSERT_TRUE(Orb::activityManager()->runUntil(
      [&] {
        for (const auto& [key, response] : root->retraResponse()->response()) {
          if (!response->finished()) return false;
        }
        return root->retraResponse()->response().size() == 4;
      },
      RetraTest::scaledSeconds(20)));

  const std::string text = pageOf(Format::text, book, 1 << 20);
  EXPECT_EQ(pageOf(Format::text, book, 1), text);
  const std::string openMetrics = pageOf(Format::openMetrics, book, 7);
  EXPECT_EQ(promtoolComplaints(text), "");
  // promtool reads the page as text 0.0.4, which does not give an OpenMetrics counter family
  // (`x`) its samples (`x_total`): that it misses their help is all it may say.
  EXPECT_EQ(promtoolComplaints(openMetrics),
            "retra_downloaded_bytes_total no help text\nretra_fetch_errors_total no help "
            "text\nretra_fetches_total no help text\n");

  EXPECT_NE(text.find("probe_success" + labels(served) + "} 1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("probe_http_status_code" + labels(served) + "} 200\n"), std::string::npos);
  EXPECT_NE(text.find("probe_http_content_length" + labels(served) + "} 1024\n"),
            std::string::npos);
  EXPECT_NE(text.find("retra_downloaded_bytes_total" + labels(served) + "} 1024\n"),
            std::string::npos);
  EXPECT_NE(text.find("probe_http_duration_seconds" + labels(served) + ",phase=\"connect\"} "),
            std::string::npos);
  EXPECT_NE(text.find("probe_success" + labels(refused) + "} 0\n"), std::string::npos);
  // The resolver's look-up of the name is the fetch's resolve phase; it is part of the whole.
  const std::string resolve =
      "probe_http_duration_seconds" + labels(named) + ",phase=\"resolve\"} ";
  ASSERT_NE(text.find(resolve), std::string::npos);
  EXPECT_GT(std::stod(text.substr(text.find(resolve) + resolve.size())), 0.0);
  EXPECT_NE(text.find("probe_success" + labels(named) + "} 1\n"), std::string::npos);
  EXPECT_NE(
      text.find("retra_fetch_errors_total" + labels(refused) + ",error=\"errConnRefused\"} 1\n"),
      std::string::npos);
  EXPECT_NE(text.find("probe_success" + labels("http://127.0.0.1:1/a\\\"b\\\\c\\nd") + "} 0\n"),
            std::string::npos);
  EXPECT_NE(text.find("retra_fetches_total" + labels(served) + "} 1\n"), std::string::npos);
  EXPECT_NE(text.find("probe_ip_protocol" + labels(served) + "} 4\n"), std::string::npos);
  EXPECT_NE(text.find("# TYPE retra_fetches_total counter\n"), std::string::npos);
  EXPECT_NE(text.find("retra_requests{uid=\"" + std::to_string(::getuid()) +
                      "\",state=\"stateFinished\"} 4\n"),
            std::string::npos);
  EXPECT_NE(text.find("\nretra_connected_clients 2\n"), std::string::npos);
  EXPECT_NE(text.find("\nretra_open_sockets 3\n"), std::string::npos);
  EXPECT_EQ(text.find("# EOF"), std::string::npos);

  EXPECT_NE(openMetrics.find("# TYPE retra_fetches counter\n"), std::string::npos);
  EXPECT_TRUE(openMetrics.ends_with("\n# EOF\n"));

  // What Prometheus sends, what older scrapers send, and a scraper that prefers text.
  EXPECT_EQ(RetraMetrics::formatFor("application/openmetrics-text;version=1.0.0,application/"
                                    "openmetrics-text;version=0.0.1;q=0.75,text/plain;version=0."
                                    "0.4;q=0.5,*/*;q=0.1"),
            Format::openMetrics);
  EXPECT_EQ(RetraMetrics::formatFor("text/plain;version=0.0.4"), Format::text);
  EXPECT_EQ(RetraMetrics::formatFor("application/openmetrics-text;q=0.2, text/plain"),
            Format::text);

  // Fetched again, the served URL shows that fetch's timings, not the sum the timer keeps.
  Retra::Request again(Retra::RequestKey(Retra::GET, served));
  again.timeoutRefreshIs(1);
  root->retraRequest()->requestIs(again);
  const auto& records = book.users().begin()->second->records;
  const auto record = records.find(again.requestKey())->second;
  const uint64_t before = record->fetches();
  ASSERT_TRUE(Orb::activityManager()->runUntil([&] { return record->fetches() >= before + 2; },
                                               RetraTest::scaledSeconds(20)));
  const auto response = root->retraResponse()->response(again.requestKey());
  EXPECT_GT(record->lastFetch()->duration, 0.0);
  EXPECT_LT(record->lastFetch()->duration, response->timerIs()->total());
  EXPECT_TRUE(record->lastFetch()->success);
  root->retraSm()->shutdown();
}

// retrad --metrics-listen scraped by Prometheus: a served URL succeeds, a refused one does not,
// the phases are there, and only GET /metrics is answered.
TEST(MetricsService, PrometheusScrapesRetrad) {
  RetraTest::NginxServer nginx;
  const std::string metrics =
      "127.0.0.1:" + std::to_string(RetraTest::LoopbackHttpServer::freePort());
  ServiceTest::ServiceProcess service({"--metrics-listen", metrics});
  Retra::RemoteRoot::Options options;
  options.socketPath = service.socketPath();
  auto client = Orb::allocate<Retra::RemoteRoot>("metricsClient", options);
  const std::string served = nginx.httpUrl("/small.txt");
  const std::string refused = RetraTest::LoopbackHttpServer::refusingUrl();
  for (const std::string& uri : {served, refused}) {
    client->retraRequest()->requestIs(Retra::Request(Retra::RequestKey(Retra::GET, uri)));
  }
  ASSERT_TRUE(Orb::activityManager()->runUntil(
      [&] {
        size_t finished = 0;
        for (const auto& [key, response] : client->retraResponse()->response()) {
          finished += response->finished() ? 1 : 0;
        }
        return finished == 2;
      },
      RetraTest::scaledSeconds(20)))
      << service.log();

  const Reply page = httpRequest("http://" + metrics + "/metrics");
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.contentType, "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_NE(page.body.find("retra_connected_clients 1\n"), std::string::npos) << page.body;
  EXPECT_EQ(httpRequest("http://" + metrics + "/other").status, 404);
  EXPECT_EQ(httpRequest("http://" + metrics + "/metrics", "", "POST").status, 405);

  RetraTest::TempDir dir("prometheus");
  const std::string web = "127.0.0.1:" + std::to_string(RetraTest::LoopbackHttpServer::freePort());
  const std::string config =
      dir.write("prometheus.yml",
                "global:\n  scrape_interval: " + std::to_string(RetraTest::scaledSeconds(1)) +
                    "s\nscrape_configs:\n  - job_name: retrad\n"
                    "    static_configs:\n      - targets: ['" +
                    metrics + "']\n");
  RetraTest::ChildProcess prometheus(
      {"/usr/bin/prometheus", "--config.file=" + config, "--storage.tsdb.path=" + dir.path("db"),
       "--web.listen-address=" + web},
      dir.path("prometheus.log"));
  // The value of each series `query` finds, by uri.
  auto query = [&](const std::string& expression) {
    std::map<std::string, std::string> values;
    char* escaped = curl_easy_escape(nullptr, expression.c_str(), int(expression.size()));
    const Reply reply = httpRequest("http://" + web + "/api/v1/query?query=" + escaped);
    curl_free(escaped);
    if (reply.status != 200) return values;
    const auto answer = nlohmann::json::parse(reply.body);
    for (const auto& series : answer["data"]["result"]) {
      values[series["metric"]["uri"]] = series["value"][1];
    }
    return values;
  };
  std::map<std::string, std::string> success;
  for (int i = 0; i < 300 * RetraTest::timeScale() && success.size() < 2; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    success = query("probe_success");
  }
  EXPECT_EQ(success[served], "1") << dir.read("prometheus.log");
  EXPECT_EQ(success[refused], "0");
  EXPECT_EQ(query("probe_http_duration_seconds{phase=\"connect\"}").size(), 2u);
  EXPECT_EQ(query("retra_fetches_total").size(), 2u);
}
