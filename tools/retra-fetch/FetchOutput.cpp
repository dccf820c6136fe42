#include "retra-fetch/FetchOutput.h"

#include <cstdio>

namespace RetraFetch {
namespace {

std::string format(const char* pattern, auto... values) {
  char buffer[256];
  const int n = std::snprintf(buffer, sizeof buffer, pattern, values...);
  return std::string(buffer, n < 0 ? 0 : std::min<size_t>(size_t(n), sizeof buffer - 1));
}

std::string valueText(const StatRow& row, double value) {
  if (row.seconds) return format("%.6f", value);
  if (!row.summed) return format("%.1f", value);
  return format("%.0f", value);
}

void addRows(std::string& table, const char* title, const std::vector<StatRow>& rows) {
  table += format("  %-22s %14s %14s\n", title, "this fetch", "all fetches");
  for (const StatRow& row : rows) {
    table += format("  %-22s %14s %14s\n", row.name.c_str(), valueText(row, row.fetch).c_str(),
                    row.summed ? valueText(row, row.all).c_str() : "-");
  }
}

}  // namespace

std::string summaryLine(const FetchReport& report) {
  std::string outcome;
  if (report.statusCode != 0) outcome = std::to_string(report.statusCode);
  if (report.error != Retra::errNone) {
    if (!outcome.empty()) outcome += " ";
    outcome += Retra::stringValue(report.error).str();
    if (!report.errorMessage.empty()) outcome += ": " + report.errorMessage;
  }
  if (outcome.empty()) outcome = "no status";
  // The library reports no error once a status has arrived, even when the transfer then ended
  // early (a time-out while the body was coming); say so.
  const bool cutShort = report.expectedBytes >= 0 && report.bytes < uint64_t(report.expectedBytes);
  const bool noFinalStatus = report.statusCode > 0 && report.statusCode < 200;
  if (report.error == Retra::errNone && (cutShort || noFinalStatus)) outcome += " incomplete";
  std::string line = Retra::stringValue(report.method).str() + " " + report.uri + " -> " + outcome;
  const auto bytes = static_cast<unsigned long long>(report.bytes);
  if (cutShort && report.error == Retra::errNone) {
    line += format(", %llu of %lld bytes", bytes, static_cast<long long>(report.expectedBytes));
  } else {
    line += format(", %llu bytes", bytes);
  }
  line += format(", %.3f s", report.seconds);
  if (report.fetch > 1) line += " [fetch " + std::to_string(report.fetch) + "]";
  return line + "\n";
}

std::string statsTable(const FetchReport& report) {
  std::string table;
  addRows(table, "timer (seconds)", report.timers);
  addRows(table, "counter", report.counters);
  return table;
}

std::string headerBlock(const FetchReport& report) {
  std::string block = "HTTP " + std::to_string(report.statusCode) + "\n";
  for (const auto& [name, value] : report.headers) block += name + ": " + value + "\n";
  return block + "\n";
}

std::string progressLine(size_t done, size_t total, uint64_t bytes) {
  return format("%zu/%zu done, %s received", done, total, sizeText(bytes).c_str());
}

std::string sizeText(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return format("%llu B", static_cast<unsigned long long>(bytes));
  double value = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  return format("%.1f %s", value, kUnits[unit]);
}

}  // namespace RetraFetch
