#pragma once

#include <memory>
#include <string>
#include <vector>

#include "metrics/MetricsExporter.h"
#include "metrics/MetricsSource.h"

namespace Retrad {

class Service;

// The service's metrics on `--metrics-listen`: each user space as a user of the metrics (its
// uid and root, followed from the moment the service adds it), the sessions as connected
// clients and the engines' transfer sockets as open sockets.
//
//   Retrad::Service service(options);
//   Retrad::ServiceMetrics metrics(service, "127.0.0.1:9464");   // throws when it can't bind
//
// The service must outlive this object.
class ServiceMetrics : public RetraMetrics::MetricsSource {
 public:
  ServiceMetrics(Service& service, const std::string& listen);
  ~ServiceMetrics() override;

  [[nodiscard]] std::vector<User> users() const override;
  [[nodiscard]] size_t connectedClients() const override;
  [[nodiscard]] size_t openSockets() const override;

 private:
  Service& service_;
  std::unique_ptr<RetraMetrics::MetricsExporter> exporter_;
};

}  // namespace Retrad
