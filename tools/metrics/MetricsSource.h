#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Orb/Ptr.h"
#include "Retra/engine/Root.h"

namespace RetraMetrics {

// What a host tells the metrics about itself: its users, each with the `Retra::Root` that holds
// that user's requests and responses, and two gauges of its own. The host implements it; the
// metrics only read it, on the activity loop, while a page is being built.
//
//   class HostMetrics : public RetraMetrics::MetricsSource {
//     std::vector<User> users() const override { return {{getuid(), root_}}; }
//     size_t connectedClients() const override { return 0; }
//     size_t openSockets() const override { return root_->retraSm()->socket().size(); }
//   };
class MetricsSource {
 public:
  struct User {
    uint32_t uid = 0;
    Orb::Ptr<Retra::Root> root;
  };

  virtual ~MetricsSource() = default;

  [[nodiscard]] virtual std::vector<User> users() const = 0;
  [[nodiscard]] virtual size_t connectedClients() const = 0;
  // Sockets the host's engines hold open for their transfers.
  [[nodiscard]] virtual size_t openSockets() const = 0;
};

}  // namespace RetraMetrics
