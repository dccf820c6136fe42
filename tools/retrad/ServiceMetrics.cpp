#include "retrad/ServiceMetrics.h"

#include "retrad/Service.h"

namespace Retrad {

ServiceMetrics::ServiceMetrics(Service& service, const std::string& listen) : service_(service) {
  exporter_ = std::make_unique<RetraMetrics::MetricsExporter>(*this, listen);
  service_.userSpaceAddedIs([this](UserSpace& space) {
    exporter_->userAdded({space.uid(), space.root()});
  });
}

ServiceMetrics::~ServiceMetrics() {
  service_.userSpaceAddedIs(nullptr);
}

std::vector<RetraMetrics::MetricsSource::User> ServiceMetrics::users() const {
  std::vector<User> users;
  for (const auto& [uid, space] : service_.userSpaces())
    users.push_back({space->uid(), space->root()});
  return users;
}

size_t ServiceMetrics::connectedClients() const {
  return service_.sessionCount();
}

size_t ServiceMetrics::openSockets() const {
  size_t sockets = 0;
  for (const auto& [uid, space] : service_.userSpaces()) {
    if (const auto engine = space->root()->retraSm()) sockets += engine->socket().size();
  }
  return sockets;
}

}  // namespace Retrad
