#include "Dnsr/internal/HostLookup.h"

#include <arpa/nameser.h>
#include <netdb.h>

#include <algorithm>
#include <exception>

#include "Dnsr/internal/DnsrTrace.h"
#include "Orb/Ptr.h"
#include "Orb/Seconds.h"

namespace Dnsr::internal {

namespace {

// Answers beyond this many addresses of one family are dropped.
constexpr int maxAddresses = 64;

// Adds the addresses of a hosts-file entry to `out`.
template <class Address>
void hostentAddresses(const hostent* entry, std::vector<Address>& out) {
  for (char** a = entry->h_addr_list; a && *a; ++a) {
    Address address = Address::fromBytes(*a);
    if (std::find(out.begin(), out.end(), address) == out.end()) out.push_back(address);
  }
}

}  // namespace

// The context c-ares carries for one query: the look-up, kept alive until the callback.
struct HostLookup::Query {
  Orb::Ptr<HostLookup> lookup;
  int type;
};

void HostLookup::start(ares_channel channel) {
  started_ = true;
  answer_.started = Orb::System::currentTime();
  startedAt_ = std::chrono::steady_clock::now();
  // c-ares reads the name up to its first NUL: a name that has one cannot be asked for.
  if (host_.empty() || host_.view().find('\0') != std::string_view::npos) {
    answer_.ipStatus = answer_.ip6Status = ARES_EBADNAME;
    finished();
    return;
  }
  hostsFileRead(channel);
  if (fromHostsFile_) {
    finished();
    return;
  }
  pending_ = 2;
  // Either call may report at once (a name that cannot be put in a query): count both first.
  for (int type : {ns_t_a, ns_t_aaaa}) {
    ares_search(channel, host_.charPtr(), ns_c_in, type, &HostLookup::onAnswer,
                new Query{Orb::Ptr<HostLookup>(this), type});
  }
}

void HostLookup::hostsFileRead(ares_channel channel) {
  for (int family : {AF_INET, AF_INET6}) {
    hostent* entry = nullptr;
    if (ares_gethostbyname_file(channel, host_.charPtr(), family, &entry) != ARES_SUCCESS) {
      continue;
    }
    if (family == AF_INET && entry->h_addrtype == AF_INET) {
      hostentAddresses(entry, answer_.ip);
    } else if (family == AF_INET6 && entry->h_addrtype == AF_INET6) {
      hostentAddresses(entry, answer_.ip6);
    }
    ares_free_hostent(entry);
  }
  if (!answer_.succeeded()) return;
  fromHostsFile_ = true;
  answer_.ipStatus = answer_.ip.empty() ? ARES_ENODATA : ARES_SUCCESS;
  answer_.ip6Status = answer_.ip6.empty() ? ARES_ENODATA : ARES_SUCCESS;
  answer_.ttl = 0;  // the file may change at any time: read it again at the next refresh
}

void HostLookup::onAnswer(void* arg, int status, int timeouts, unsigned char* reply, int length) {
  (void)timeouts;
  auto* query = static_cast<Query*>(arg);
  Orb::Ptr<HostLookup> lookup = std::move(query->lookup);
  const int type = query->type;
  delete query;
  // Cancelled or expired look-ups and a channel going away end here without reporting.
  if (lookup->isCancelled() || lookup->isDone() || status == ARES_EDESTRUCTION) return;
  try {  // nothing may unwind through c-ares
    lookup->answered(type, status, reply, length);
  } catch (const std::exception& e) {
    DNSR_TRACE(1, "answer for host='" << lookup->host() << "' lost: " << e.what());
  }
}

void HostLookup::answered(int type, int status, const unsigned char* reply, int length) {
  if (status == ARES_SUCCESS) {
    int count = maxAddresses;
    if (type == ns_t_a) {
      ares_addrttl found[maxAddresses];
      status = ares_parse_a_reply(reply, length, nullptr, found, &count);
      for (int i = 0; status == ARES_SUCCESS && i < count; ++i) {
        answer_.ip.push_back(Ipkit::IpAddr(found[i].ipaddr));
        answer_.ttl = std::min(answer_.ttl, Orb::Seconds(found[i].ttl));
      }
    } else {
      ares_addr6ttl found[maxAddresses];
      status = ares_parse_aaaa_reply(reply, length, nullptr, found, &count);
      for (int i = 0; status == ARES_SUCCESS && i < count; ++i) {
        answer_.ip6.push_back(Ipkit::Ip6Addr::fromBytes(&found[i].ip6addr));
        answer_.ttl = std::min(answer_.ttl, Orb::Seconds(found[i].ttl));
      }
    }
    if (status == ARES_SUCCESS && count == 0) status = ARES_ENODATA;
  }
  (type == ns_t_a ? answer_.ipStatus : answer_.ip6Status) = status;
  (type == ns_t_a ? ipAnswered_ : ip6Answered_) = true;
  DNSR_TRACE(3, "host='" << host_ << "' " << (type == ns_t_a ? "A" : "AAAA") << ": "
                         << (status == ARES_SUCCESS ? "answered" : ares_strerror(status)));
  if (--pending_ == 0) finished();
}

void HostLookup::expire() {
  if (isDone()) return;
  if (!ipAnswered_) answer_.ipStatus = ARES_ETIMEOUT;
  if (!ip6Answered_) answer_.ip6Status = ARES_ETIMEOUT;
  pending_ = 0;
  DNSR_TRACE(3, "host='" << host_ << "' ran past its deadline");
  finished();
}

void HostLookup::finished() {
  answer_.duration =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - startedAt_).count();
  if (listener_) listener_->onLookupDone(this);
}

}  // namespace Dnsr::internal
