#include "common/BenchTally.h"

#include <sys/stat.h>

#include "common/BenchPlan.h"

namespace RetraBench {
namespace {

constexpr size_t kFailureLinesKept = 5;

}  // namespace

BenchTally::BenchTally(const BenchOptions& options)
    : options_(options), seen_(options.count, false) {}

void BenchTally::record(const Outcome& outcome) {
  if (outcome.index >= seen_.size() || seen_[outcome.index]) {
    fail(outcome.index, "reported more than once");
    return;
  }
  seen_[outcome.index] = true;
  ++finished_;
  if (!outcome.transferOk) {
    fail(outcome.index, "transfer failed: " + outcome.error);
    return;
  }
  if (outcome.status != 200) {
    fail(outcome.index, "status " + std::to_string(outcome.status));
    return;
  }
  uint64_t size = outcome.bodyBytes;
  const std::string path = outputPath(options_, outcome.index);
  if (!path.empty()) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
      fail(outcome.index, "no output file " + path);
      return;
    }
    size = static_cast<uint64_t>(info.st_size);
  }
  const long long expected =
      options_.expectSize ? static_cast<long long>(*options_.expectSize) : outcome.announcedLength;
  if (expected < 0 || size != static_cast<uint64_t>(expected)) {
    fail(outcome.index,
         "body of " + std::to_string(size) + " bytes, expected " + std::to_string(expected));
    return;
  }
  bytes_ += size;
}

void BenchTally::fail(size_t index, const std::string& why) {
  ++failures_;
  if (failureLines_.size() < kFailureLinesKept) {
    failureLines_.push_back("request " + std::to_string(index) + ": " + why);
  }
}

}  // namespace RetraBench
