#include "common/BenchReport.h"

#include <sys/resource.h>
#include <unistd.h>

#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "common/BenchOptions.h"
#include "common/BenchTally.h"

namespace RetraBench {
namespace {

// The resident set now, from /proc/self/statm; -1 when it cannot be read.
long residentKib() {
  std::FILE* statm = std::fopen("/proc/self/statm", "r");
  if (!statm) return -1;
  long size = 0;
  long resident = -1;
  if (std::fscanf(statm, "%ld %ld", &size, &resident) != 2) resident = -1;
  std::fclose(statm);
  return resident < 0 ? -1 : resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

double secondsOf(const timeval& t) {
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

std::string number(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

}  // namespace

double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string jsonLine(const BenchReport& report) {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const double perSecond = report.seconds > 0 ? 1.0 / report.seconds : 0.0;
  std::string line = "{\"program\":\"" + report.program + "\"";
  line += ",\"requests\":" + std::to_string(report.requests);
  line += ",\"failures\":" + std::to_string(report.failures);
  line += ",\"seconds\":" + number(report.seconds);
  line += ",\"requests_per_second\":" + number(static_cast<double>(report.requests) * perSecond);
  line += ",\"bytes\":" + std::to_string(report.bytes);
  line += ",\"mb_per_second\":" + number(static_cast<double>(report.bytes) / 1e6 * perSecond);
  line += ",\"start_seconds\":" + number(report.startSeconds);
  if (report.teardownSeconds) line += ",\"teardown_seconds\":" + number(*report.teardownSeconds);
  line += ",\"user_seconds\":" + number(secondsOf(usage.ru_utime));
  line += ",\"system_seconds\":" + number(secondsOf(usage.ru_stime));
  line += ",\"peak_rss_kib\":" + std::to_string(usage.ru_maxrss);
  line += ",\"rss_now_kib\":" + std::to_string(residentKib());
  if (report.serviceRssGrowthKib) {
    line += ",\"service_rss_growth_kib\":" + std::to_string(*report.serviceRssGrowthKib);
  }
  if (report.serviceCpuSeconds) {
    line += ",\"service_cpu_seconds\":" + number(*report.serviceCpuSeconds);
  }
  line += std::string(",\"kept\":") + (report.kept ? "true" : "false");
  line += "}\n";
  return line;
}

int finishRun(const BenchOptions& options, const BenchTally& tally, const BenchReport& report) {
  for (const std::string& line : tally.failureLines()) {
    std::cerr << options.program << ": " << line << "\n";
  }
  const int status = report.failures == 0 ? 0 : 1;
  if (options.keep) (void)::malloc_trim(0);
  const std::string line = jsonLine(report);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
  std::cerr << std::flush;
  if (options.keep) std::_Exit(status);
  return status;
}

}  // namespace RetraBench
