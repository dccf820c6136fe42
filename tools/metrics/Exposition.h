#pragma once

#include <string>
#include <string_view>

namespace RetraMetrics {

// The two page formats a scraper may ask for: Prometheus' text format 0.0.4 and OpenMetrics
// 1.0.0, which names counter families without their `_total` and ends with "# EOF".
enum class Format { text, openMetrics };

// The format an `Accept` header asks for: OpenMetrics when it names
// application/openmetrics-text with a weight no lower than text/plain's, else text.
[[nodiscard]] Format formatFor(std::string_view accept);
[[nodiscard]] const char* contentTypeOf(Format format);

// Appends `value` as a label value goes between its double quotes: backslash, double quote and
// line feed escaped as \\, \" and \n, as both formats require.
void appendLabelValue(std::string& out, std::string_view value);

}  // namespace RetraMetrics
