#include "metrics/PageBuilder.h"

#include <charconv>
#include <cmath>
#include <iterator>

#include "Retra/model/Enumerations.h"

namespace RetraMetrics {
namespace {

enum class Kind { perRecord, perUidState, host };

struct Family {
  const char* name;  // as samples carry it
  bool counter;
  Kind kind;
  const char* help;
};

// Page order. Names follow the blackbox exporter's where the meaning is the same.
constexpr Family kFamilies[] = {
    {"probe_success", false, Kind::perRecord,
     "Whether the last fetch finished without error and with a status below 400."},
    {"probe_http_status_code", false, Kind::perRecord, "HTTP status of the last fetch."},
    {"probe_http_duration_seconds", false, Kind::perRecord,
     "Duration of each phase of the last fetch."},
    {"probe_duration_seconds", false, Kind::perRecord,
     "Duration of the last fetch, look-up included."},
    {"probe_http_content_length", false, Kind::perRecord,
     "Content length the last fetch announced, -1 if unknown."},
    {"probe_http_redirects", false, Kind::perRecord, "Redirects the last fetch followed."},
    {"probe_ip_protocol", false, Kind::perRecord,
     "IP protocol of the addresses the last fetch tried first (4 or 6; 0 for none)."},
    {"retra_fetches_total", true, Kind::perRecord, "Fetches finished."},
    {"retra_fetch_errors_total", true, Kind::perRecord, "Fetches finished with an error."},
    {"retra_downloaded_bytes_total", true, Kind::perRecord, "Body bytes received."},
    {"retra_last_update_timestamp_seconds", false, Kind::perRecord,
     "When a fetch last finished, seconds since the epoch."},
    {"retra_last_change_timestamp_seconds", false, Kind::perRecord,
     "When a fetch last brought new content, seconds since the epoch."},
    {"retra_requests", false, Kind::perUidState, "Requests by state."},
    {"retra_connected_clients", false, Kind::host, "Clients connected to the service."},
    {"retra_open_sockets", false, Kind::host, "Sockets open for transfers."},
};
constexpr size_t kFamilyCount = std::size(kFamilies);
// The probe_ families come first: a response without a finished fetch has none of them.
constexpr size_t kProbeFamilies = 7;
constexpr const char* kPhaseLabels[] = {"phase=\"resolve\"", "phase=\"connect\"", "phase=\"tls\"",
                                        "phase=\"processing\"", "phase=\"transfer\""};

void appendNumber(std::string& out, double value) {
  if (std::isnan(value)) {
    out += "NaN";
  } else if (std::isinf(value)) {
    out += value > 0 ? "+Inf" : "-Inf";
  } else {
    char buffer[32];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
  }
}

void appendNumber(std::string& out, uint64_t value) {
  char buffer[24];
  out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

}  // namespace

PageBuilder::PageBuilder(Format format, const FetchBook& book, Gauges gauges)
    : format_(format), gauges_(gauges) {
  records_.reserve(book.recordCount());
  size_t labelBytes = 0;
  for (const auto& [uid, user] : book.users()) {
    UserStates& states = states_.emplace_back();
    states.uid = uid;
    for (const auto& [key, record] : user->records) {
      records_.push_back(record);
      labelBytes += record->labels().size();
      if (const Retra::Response* response = record->notifierPtr()) {
        ++states.count[std::min<size_t>(response->requestState(), kStates - 1)];
      }
    }
  }
  // About 16 series per response, each its labels and some 60 bytes of name and value.
  page_.reserve(16 * (labelBytes + 60 * records_.size()) + 4096);
}

bool PageBuilder::step(size_t budget) {
  while (!complete_ && budget > 0) {
    if (family_ == kFamilyCount) {
      if (format_ == Format::openMetrics) page_ += "# EOF\n";
      complete_ = true;
      break;
    }
    if (!headerWritten_) {
      writeHeader(family_);
      headerWritten_ = true;
    }
    if (kFamilies[family_].kind == Kind::perRecord) {
      while (position_ < records_.size() && budget > 0) {
        const size_t written = writeSeries(family_, *records_[position_++]);
        budget -= std::min(budget, std::max<size_t>(written, 1));
      }
      if (position_ < records_.size()) break;
    } else {
      writeHostFamily(family_);
    }
    ++family_;
    position_ = 0;
    headerWritten_ = false;
  }
  return complete_;
}

void PageBuilder::writeHeader(size_t family) {
  std::string_view name = kFamilies[family].name;
  // OpenMetrics names a counter family without the `_total` its samples carry.
  if (format_ == Format::openMetrics && kFamilies[family].counter) name.remove_suffix(6);
  page_ += "# HELP ";
  page_ += name;
  page_ += ' ';
  page_ += kFamilies[family].help;
  page_ += "\n# TYPE ";
  page_ += name;
  page_ += kFamilies[family].counter ? " counter\n" : " gauge\n";
}

void PageBuilder::sample(const char* name, const std::string& labels, const char* extraLabels,
                         double value) {
  page_ += name;
  page_ += '{';
  page_ += labels;
  if (extraLabels) {
    page_ += ',';
    page_ += extraLabels;
  }
  page_ += "} ";
  appendNumber(page_, value);
  page_ += '\n';
}

void PageBuilder::sample(const char* name, const std::string& labels, double value) {
  sample(name, labels, nullptr, value);
}

void PageBuilder::sample(const char* name, const std::string& labels, uint64_t value) {
  page_ += name;
  page_ += '{';
  page_ += labels;
  page_ += "} ";
  appendNumber(page_, value);
  page_ += '\n';
}

size_t PageBuilder::writeSeries(size_t family, const FetchRecord& record) {
  const char* name = kFamilies[family].name;
  const std::string& labels = record.labels();
  const auto& last = record.lastFetch();
  if (family < kProbeFamilies && !last) return 0;
  switch (family) {
    case 0:
      sample(name, labels, uint64_t(last->success ? 1 : 0));
      return 1;
    case 1:
      sample(name, labels, uint64_t(last->statusCode));
      return 1;
    case 2: {
      const double phases[] = {last->resolve, last->connect, last->tls, last->processing,
                               last->transfer};
      for (size_t i = 0; i < std::size(kPhaseLabels); ++i) {
        sample(name, labels, kPhaseLabels[i], phases[i]);
      }
      return std::size(kPhaseLabels);
    }
    case 3:
      sample(name, labels, last->duration);
      return 1;
    case 4:
      sample(name, labels, double(last->contentLength));
      return 1;
    case 5:
      sample(name, labels, uint64_t(last->redirects));
      return 1;
    case 6:
      sample(name, labels, uint64_t(last->ipProtocol));
      return 1;
    case 7:
      sample(name, labels, record.fetches());
      return 1;
    case 8:
      for (const auto& [error, count] : record.errors()) {
        const std::string label = "error=\"" + std::string(Retra::stringValue(error).view()) + '"';
        sample(name, labels, label.c_str(), double(count));
      }
      return record.errors().size();
    case 9: {
      const Retra::Response* response = record.notifierPtr();
      const auto counter = response ? response->counter() : nullptr;
      sample(name, labels, counter ? counter->bytesDownload() : uint64_t(0));
      return 1;
    }
    case 10:
      sample(name, labels, record.lastUpdateTime());
      return 1;
    case 11:
      sample(name, labels, record.lastChangeTime());
      return 1;
    default:
      return 0;
  }
}

void PageBuilder::writeHostFamily(size_t family) {
  const char* name = kFamilies[family].name;
  if (kFamilies[family].kind == Kind::perUidState) {
    for (const UserStates& states : states_) {
      const std::string uid = "uid=\"" + std::to_string(states.uid) + '"';
      for (size_t state = 0; state < kStates; ++state) {
        const std::string label =
            "state=\"" + std::string(Retra::stringValue(Retra::RequestState(state)).view()) + '"';
        sample(name, uid, label.c_str(), double(states.count[state]));
      }
    }
    return;
  }
  page_ += name;
  page_ += ' ';
  appendNumber(
      page_, uint64_t(family == kFamilyCount - 2 ? gauges_.connectedClients : gauges_.openSockets));
  page_ += '\n';
}

}  // namespace RetraMetrics
