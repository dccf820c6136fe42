#include "metrics/Exposition.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>

namespace RetraMetrics {
namespace {

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
    text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
    text.remove_suffix(1);
  return text;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// The weight of one media range of an Accept header ("type/sub;version=1;q=0.5"): 1 unless a
// q parameter says otherwise.
double weightOf(std::string_view range) {
  size_t at = range.find(';');
  while (at != std::string_view::npos) {
    range.remove_prefix(at + 1);
    at = range.find(';');
    const std::string_view parameter = trimmed(range.substr(0, at));
    if (parameter.size() > 2 && (parameter[0] == 'q' || parameter[0] == 'Q') &&
        parameter[1] == '=') {
      return std::strtod(std::string(parameter.substr(2)).c_str(), nullptr);
    }
  }
  return 1;
}

}  // namespace

Format formatFor(std::string_view accept) {
  double openMetrics = 0;
  double text = 0;
  while (!accept.empty()) {
    const size_t comma = accept.find(',');
    const std::string_view range = accept.substr(0, comma);
    accept.remove_prefix(comma == std::string_view::npos ? accept.size() : comma + 1);
    const std::string_view type = trimmed(range.substr(0, range.find(';')));
    if (equalsIgnoringCase(type, "application/openmetrics-text")) {
      openMetrics = std::max(openMetrics, weightOf(range));
    } else if (equalsIgnoringCase(type, "text/plain")) {
      text = std::max(text, weightOf(range));
    }
  }
  return openMetrics > 0 && openMetrics >= text ? Format::openMetrics : Format::text;
}

const char* contentTypeOf(Format format) {
  return format == Format::openMetrics
             ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
             : "text/plain; version=0.0.4; charset=utf-8";
}

void appendLabelValue(std::string& out, std::string_view value) {
  for (const char c : value) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '"':
        out += "\\\"";
        break;
      case '\n':
        out += "\\n";
        break;
      default:
        out += c;
    }
  }
}

}  // namespace RetraMetrics
