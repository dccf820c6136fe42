#include "common/BenchPlan.h"

namespace RetraBench {

std::string withHost(const std::string& url, const std::string& host) {
  const size_t schemeEnd = url.find("://");
  if (schemeEnd == std::string::npos) return url;
  const size_t authorityStart = schemeEnd + 3;
  const size_t authorityEnd = std::min(url.find_first_of("/?#", authorityStart), url.size());
  size_t hostStart = url.find('@', authorityStart);
  hostStart = hostStart < authorityEnd ? hostStart + 1 : authorityStart;
  size_t hostEnd = authorityEnd;
  if (hostStart < authorityEnd && url[hostStart] == '[') {
    const size_t bracket = url.find(']', hostStart);
    if (bracket < authorityEnd) hostEnd = bracket + 1;
  } else {
    const size_t colon = url.find(':', hostStart);
    if (colon < authorityEnd) hostEnd = colon;
  }
  return url.substr(0, hostStart) + host + url.substr(hostEnd);
}

std::string requestUrl(const BenchOptions& options, size_t index) {
  std::string url = options.urls[index % options.urls.size()];
  if (!options.hosts.empty()) url = withHost(url, options.hosts[index % options.hosts.size()]);
  const size_t fragment = std::min(url.find('#'), url.size());
  const bool hasQuery = url.find('?') < fragment;
  url.insert(fragment, (hasQuery ? "&i=" : "?i=") + std::to_string(index));
  return url;
}

std::string outputPath(const BenchOptions& options, size_t index) {
  if (options.outputDir.empty()) return {};
  return options.outputDir + "/body-" + std::to_string(index);
}

}  // namespace RetraBench
