#include "retra/ResponseOutcome.h"

namespace RetraBench {

Outcome responseOutcome(size_t index, const Retra::Response& response) {
  Outcome outcome;
  outcome.index = index;
  outcome.status = response.statusCode();
  outcome.transferOk = response.lastError() == Retra::errNone;
  if (!outcome.transferOk) {
    outcome.error = Retra::stringValue(response.lastError()).str();
    if (!response.lastErrorMessage().empty()) {
      outcome.error += " (" + response.lastErrorMessage().str() + ")";
    }
  }
  outcome.bodyBytes = response.body().size();
  outcome.announcedLength = response.contentLengthDownload();
  return outcome;
}

}  // namespace RetraBench
