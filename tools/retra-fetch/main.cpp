// retra-fetch: fetches URLs with the Retra library from a shell. See `retra-fetch --help`.

#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "retra-fetch/FetchOptions.h"
#include "retra-fetch/FetchRunner.h"
#include "toolkit/ExitCode.h"

int main(int argc, char** argv) {
  const RetraFetch::CommandLine line =
      RetraFetch::parseCommandLine(std::vector<std::string>(argv, argv + argc));
  switch (line.outcome) {
    case RetraFetch::CommandLine::Outcome::exit:
      std::cout << line.message;
      return RetraTool::exitOk;
    case RetraFetch::CommandLine::Outcome::usageError:
      std::cerr << "retra-fetch: " << line.message << "\n"
                << "Try 'retra-fetch --help' for more information.\n";
      return RetraTool::exitUsage;
    case RetraFetch::CommandLine::Outcome::run:
      break;
  }
  try {
    RetraFetch::FetchRunner runner(line.options, std::cout, std::cerr, ::isatty(2) == 1);
    return runner.run();
  } catch (const std::exception& e) {
    std::cerr << "retra-fetch: " << e.what() << "\n";
    return RetraTool::exitFailure;
  }
}
