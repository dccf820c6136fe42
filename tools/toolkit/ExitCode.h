#pragma once

#include <string>

#include "Retra/model/Enumerations.h"

namespace RetraTool {

// The exit status of the command-line tools (retra-fetch, retra-ctl). A failed fetch exits with
// 10 plus its `Retra::Error` number, so the status names the error: 13 is errDnsLookup, 14
// errTimeout, 23 errHttpStatusCode, 24 errConnRefused, 25 errCurlOther (see exitCodeTable()).
enum ExitCode : int {
  exitOk = 0,          // every fetch ended with errNone
  exitFailure = 1,     // the tool itself failed (the library could not start, the service refused)
  exitUsage = 2,       // a bad command line
  exitUnfinished = 3,  // a fetch did not finish within its time limits
  exitNoService = 4,   // retra-ctl: no service listens on the socket
  exitErrorBase = 10,  // + Retra::Error of the first failed fetch
};

// 0 for errNone, otherwise exitErrorBase + the error's number.
[[nodiscard]] int exitCodeFor(Retra::Error error);

// One line per status `tool` can exit with, "  13  errDnsLookup", for the help text and the
// documentation.
[[nodiscard]] std::string exitCodeTable(const std::string& tool);

}  // namespace RetraTool
