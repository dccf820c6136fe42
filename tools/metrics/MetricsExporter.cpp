#include "metrics/MetricsExporter.h"

namespace RetraMetrics {

MetricsExporter::MetricsExporter(const MetricsSource& source, const std::string& listen)
    : source_(source) {
  followUsers();
  server_ = std::make_unique<MetricsServer>(listen, [this](Format format) {
    followUsers();
    return std::make_unique<PageBuilder>(
        format, book_, PageBuilder::Gauges{source_.connectedClients(), source_.openSockets()});
  });
}

void MetricsExporter::followUsers() {
  for (const MetricsSource::User& user : source_.users()) book_.userIs(user.uid, user.root);
}

}  // namespace RetraMetrics
