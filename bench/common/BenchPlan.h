#pragma once

#include <cstddef>
#include <string>

#include "common/BenchOptions.h"

namespace RetraBench {

// The URL of request `index`: the source URLs in turn, the host replaced by
// hosts[index % hosts.size()] when hosts are given, and "i=<index>" added to the query so that
// every request is a distinct one (a static file server ignores the query).
//
//   requestUrl(options, 7)  // "http://127.0.0.1:8080/1k.bin?i=7"
[[nodiscard]] std::string requestUrl(const BenchOptions& options, size_t index);

// Where request `index` writes its body: "<outputDir>/body-<index>", or empty when bodies stay
// in memory.
[[nodiscard]] std::string outputPath(const BenchOptions& options, size_t index);

// The URL with its host replaced (the port, path and query stay).
[[nodiscard]] std::string withHost(const std::string& url, const std::string& host);

}  // namespace RetraBench
