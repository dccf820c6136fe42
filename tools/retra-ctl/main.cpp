// retra-ctl: controls the Retra fetch service (retrad) from a shell. See `retra-ctl --help`.

#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "retra-ctl/CtlClient.h"
#include "retra-ctl/CtlCommandLine.h"
#include "toolkit/ExitCode.h"

int main(int argc, char** argv) {
  const RetraCtl::CommandLine line =
      RetraCtl::parseCommandLine(std::vector<std::string>(argv, argv + argc));
  switch (line.outcome) {
    case RetraCtl::CommandLine::Outcome::exit:
      std::cout << line.message;
      return RetraTool::exitOk;
    case RetraCtl::CommandLine::Outcome::usageError:
      std::cerr << "retra-ctl: " << line.message << "\n"
                << "Try 'retra-ctl --help' for more information.\n";
      return RetraTool::exitUsage;
    case RetraCtl::CommandLine::Outcome::run:
      break;
  }
  try {
    RetraCtl::CtlClient client(line.command, std::cout, std::cerr);
    return client.run();
  } catch (const std::exception& e) {
    std::cerr << "retra-ctl: " << e.what() << "\n";
    return RetraTool::exitFailure;
  }
}
