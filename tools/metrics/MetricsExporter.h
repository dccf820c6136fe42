#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "metrics/FetchBook.h"
#include "metrics/MetricsServer.h"
#include "metrics/MetricsSource.h"

namespace RetraMetrics {

// The metrics of a host, served over HTTP: follows the users of `source` in a `FetchBook` and
// answers scrapes on `listen` (see `MetricsServer`) with pages built from the book and the
// source's gauges.
//
// The users the source has when the exporter is made are followed at once; a host tells of a
// new user with `userAdded` before it writes requests into the user's root, so that no fetch
// goes unseen. Each scrape also picks up users the host did not tell of.
//
//   HostMetrics source;   // a MetricsSource
//   RetraMetrics::MetricsExporter exporter(source, "127.0.0.1:9464");   // throws when unbound
//   exporter.userAdded({uid, root});
//
// The source must outlive the exporter.
class MetricsExporter {
 public:
  MetricsExporter(const MetricsSource& source, const std::string& listen);

  void userAdded(const MetricsSource::User& user) { book_.userIs(user.uid, user.root); }
  [[nodiscard]] uint16_t port() const noexcept { return server_->port(); }
  [[nodiscard]] const FetchBook& book() const noexcept { return book_; }

 private:
  void followUsers();

  const MetricsSource& source_;
  FetchBook book_;
  std::unique_ptr<MetricsServer> server_;
};

}  // namespace RetraMetrics
