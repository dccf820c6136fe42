#include "toolkit/ExitCode.h"

#include <cstdio>

namespace RetraTool {

int exitCodeFor(Retra::Error error) {
  return error == Retra::errNone ? exitOk : exitErrorBase + static_cast<int>(error);
}

std::string exitCodeTable(const std::string& tool) {
  const bool fetch = tool == "retra-fetch";
  std::string table = fetch ? "   0  every fetch ended with errNone\n"
                            : "   0  done (show: the response has no error)\n";
  table += "   1  " + tool + " itself failed\n   2  usage error\n";
  table += fetch ? "   3  a fetch did not finish within its time limits\n"
                 : "   4  no service is running\n  1x  show: the response's error, as follows\n";
  for (unsigned error = Retra::errUriParse; error <= Retra::errCurlOther; ++error) {
    char line[64];
    std::snprintf(line, sizeof line, "  %2d  %s\n", exitCodeFor(Retra::ErrorInstance(error)),
                  Retra::stringValue(Retra::ErrorInstance(error)).charPtr());
    table += line;
  }
  return table;
}

}  // namespace RetraTool
