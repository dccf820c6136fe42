#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Orb/Ptr.h"
#include "metrics/Exposition.h"
#include "metrics/FetchBook.h"
#include "metrics/FetchRecord.h"

namespace RetraMetrics {

// One metrics page, written a slice at a time so that a page of many responses never holds the
// activity loop for long. The constructor takes a snapshot of the book's records (references:
// figures are read as each slice is written) and of the host's gauges; `step` writes about
// `budget` series and says whether the page is complete.
//
// The families, each with HELP and TYPE: per response (labels uid, method, uri; the probe_
// ones only once a fetch has finished) probe_success, probe_http_status_code,
// probe_http_duration_seconds{phase}, probe_duration_seconds, probe_http_content_length,
// probe_http_redirects, probe_ip_protocol, retra_fetches_total,
// retra_fetch_errors_total{error}, retra_downloaded_bytes_total,
// retra_last_update_timestamp_seconds, retra_last_change_timestamp_seconds; then per uid and
// request state retra_requests, and retra_connected_clients and retra_open_sockets.
//
//   RetraMetrics::PageBuilder page(Format::text, book, {clients, sockets});
//   while (!page.step(10000)) { /* let the loop turn */ }
//   send(page.page());
class PageBuilder {
 public:
  struct Gauges {
    size_t connectedClients = 0;
    size_t openSockets = 0;
  };

  PageBuilder(Format format, const FetchBook& book, Gauges gauges);

  // Writes up to about `budget` series; true once the page is complete.
  bool step(size_t budget);
  [[nodiscard]] bool complete() const noexcept { return complete_; }
  [[nodiscard]] Format format() const noexcept { return format_; }
  [[nodiscard]] std::string& page() noexcept { return page_; }

 private:
  static constexpr size_t kStates = 10;
  struct UserStates {
    uint32_t uid = 0;
    std::array<uint64_t, kStates> count{};
  };

  void writeHeader(size_t family);
  // The series of `family` for one record; the number written.
  size_t writeSeries(size_t family, const FetchRecord& record);
  void writeHostFamily(size_t family);
  void sample(const char* name, const std::string& labels, double value);
  void sample(const char* name, const std::string& labels, uint64_t value);
  void sample(const char* name, const std::string& labels, const char* extraLabels, double value);

  Format format_;
  std::vector<Orb::Ptr<FetchRecord>> records_;
  std::vector<UserStates> states_;
  Gauges gauges_;
  std::string page_;
  size_t family_ = 0;
  size_t position_ = 0;
  bool headerWritten_ = false;
  bool complete_ = false;
};

}  // namespace RetraMetrics
