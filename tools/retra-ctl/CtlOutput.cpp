#include "retra-ctl/CtlOutput.h"

#include <ctime>
#include <sstream>

#include "toolkit/ResponseJson.h"

namespace RetraCtl {
namespace {

using Json = nlohmann::ordered_json;

std::string localTime(double seconds) {
  if (seconds <= 0) return "-";
  const std::time_t whole = static_cast<std::time_t>(seconds);
  std::tm parts{};
  char text[32];
  ::localtime_r(&whole, &parts);
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

// A member's value as a reader wants it: strings without quotes, arrays comma-separated.
std::string plain(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (!value.is_array()) return value.dump();
  std::string text;
  for (const Json& item : value) text += (text.empty() ? "" : ", ") + plain(item);
  return text;
}

}  // namespace

std::string listingLine(const Retra::Wire::ListedRequest& listed) {
  std::ostringstream line;
  line << Retra::stringValue(listed.request.method()) << " " << listed.request.uri() << "  "
       << Retra::stringValue(listed.state) << "  " << listed.statusCode << "  "
       << Retra::stringValue(listed.lastError) << "  " << localTime(listed.lastUpdateTime) << "\n";
  return line.str();
}

Json listingJson(const Retra::Wire::ListedRequest& listed) {
  return Json{{"method", Retra::stringValue(listed.request.method()).str()},
              {"uri", listed.request.uri().str()},
              {"state", Retra::stringValue(listed.state).str()},
              {"statusCode", listed.statusCode},
              {"lastError", Retra::stringValue(listed.lastError).str()},
              {"lastUpdateTime", listed.lastUpdateTime}};
}

std::string responseText(const Retra::Response& response) {
  std::string text;
  const Json object = RetraTool::responseJson(response);
  for (const auto& [name, value] : object.items()) {
    if (name == "body" || name == "bodyBase64") continue;
    if (!value.is_object()) {
      text += name + ": " + plain(value) + "\n";
      continue;
    }
    text += name + ":\n";
    for (const auto& [member, memberValue] : value.items()) {
      text += "  " + member + ": " + plain(memberValue) + "\n";
    }
  }
  return text + "\n" + response.body().str();
}

std::string finishLine(const Retra::Response& response) {
  std::ostringstream line;
  line << Retra::stringValue(response.method()) << " " << response.uri() << " -> ";
  if (response.statusCode() != 0) line << response.statusCode();
  if (response.lastError() != Retra::errNone) {
    line << (response.statusCode() != 0 ? " " : "") << Retra::stringValue(response.lastError());
    if (!response.lastErrorMessage().view().empty()) line << ": " << response.lastErrorMessage();
  }
  if (response.outputPath().view().empty()) {
    line << ", " << response.body().view().size() << " bytes";
  } else {
    line << ", into " << response.outputPath();
  }
  line << " [fetch " << response.numRequest() << "]\n";
  return line.str();
}

}  // namespace RetraCtl
