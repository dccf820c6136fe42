#include "retra-fetch/FetchReport.h"

#include <algorithm>

namespace RetraFetch {
namespace {

#define RETRA_FETCH_COPY_VALUE(kind, name, ...) values.name = entity->name();
#define RETRA_FETCH_STAT_ROW(kind, name, ...) \
  rows.push_back(statRow(#name, now.name, before.name, seconds));

StatRow statRow(const char* name, double now, double before, bool seconds) {
  StatRow row;
  row.name = name;
  row.seconds = seconds;
  row.summed = std::string_view(name).rfind("speed", 0) != 0;
  row.all = now;
  row.fetch = row.summed ? now - before : now;
  return row;
}

// One look-up may serve several fetches and requests: its time is the latest, not summed.
StatRow resolveRow(double seconds) {
  StatRow row;
  row.name = "resolve";
  row.fetch = row.all = seconds;
  row.summed = false;
  row.seconds = true;
  return row;
}

std::vector<StatRow> counterRows(const StatsSnapshot::Counter& now,
                                 const StatsSnapshot::Counter& before) {
  std::vector<StatRow> rows;
  constexpr bool seconds = false;
  RETRA_REQUEST_COUNTER_ATTRIBUTES(RETRA_FETCH_STAT_ROW)
  return rows;
}

std::vector<StatRow> timerRows(const StatsSnapshot::Timer& now,
                               const StatsSnapshot::Timer& before) {
  std::vector<StatRow> rows;
  constexpr bool seconds = true;
  RETRA_REQUEST_TIMER_ATTRIBUTES(RETRA_FETCH_STAT_ROW)
  return rows;
}

}  // namespace

StatsSnapshot snapshotOf(const Retra::Response& response) {
  StatsSnapshot snapshot;
  if (auto entity = response.counter()) {
    auto& values = snapshot.counter;
    RETRA_REQUEST_COUNTER_ATTRIBUTES(RETRA_FETCH_COPY_VALUE)
  }
  if (auto entity = response.timer()) {
    auto& values = snapshot.timer;
    RETRA_REQUEST_TIMER_ATTRIBUTES(RETRA_FETCH_COPY_VALUE)
  }
  return snapshot;
}

FetchReport reportOf(const Retra::Response& response, const StatsSnapshot& before,
                     double resolveSeconds) {
  const StatsSnapshot now = snapshotOf(response);
  FetchReport report;
  report.method = response.method();
  report.uri = response.uri().str();
  report.statusCode = response.statusCode();
  report.error = response.lastError();
  report.errorMessage = response.lastErrorMessage().str();
  report.bytes = now.counter.bytesDownload - before.counter.bytesDownload;
  report.seconds = now.timer.total - before.timer.total;
  report.expectedBytes = response.contentLengthDownload();
  report.body = response.body().str();
  report.outputPath = response.outputPath().str();
  for (const auto& [name, value] : response.header()) {
    report.headers.emplace_back(name.str(), value.str());
  }
  std::sort(report.headers.begin(), report.headers.end());
  report.resolveSeconds = resolveSeconds;
  report.timers = timerRows(now.timer, before.timer);
  report.timers.insert(report.timers.begin(), resolveRow(resolveSeconds));
  report.counters = counterRows(now.counter, before.counter);
  return report;
}

}  // namespace RetraFetch
