#include "retra-fetch/ExitCode.h"

#include <cstdio>

namespace RetraFetch {

int exitCodeFor(Retra::Error error) {
  return error == Retra::errNone ? exitOk : exitErrorBase + static_cast<int>(error);
}

std::string exitCodeTable() {
  std::string table =
      "   0  every fetch ended with errNone\n"
      "   1  retra-fetch itself failed\n"
      "   2  usage error\n"
      "   3  a fetch did not finish within its time limits\n";
  for (unsigned error = Retra::errUriParse; error <= Retra::errCurlOther; ++error) {
    char line[64];
    std::snprintf(line, sizeof line, "  %2d  %s\n", exitCodeFor(Retra::ErrorInstance(error)),
                  Retra::stringValue(Retra::ErrorInstance(error)).charPtr());
    table += line;
  }
  return table;
}

}  // namespace RetraFetch
